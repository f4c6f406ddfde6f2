// From reference images to per-pixel correction.
#pragma once

#include "calib/calib_result.h"

// Head of a reference image in the file; img_w * img_h u16 phases follow.
struct TQCAM_PACKED calib_ref_img_t {
    int32_t ref_mm; // reference distance, thousandths of a millimetre; used from block version 142
    uint8_t rsv0[9];
    uint8_t Ns, Nf, Nc; // delay steps: third, fine, coarse
    uint8_t rsv1[4];
};
static_assert(sizeof(calib_ref_img_t) == 20);

inline constexpr uint32_t CALIB_IMG_MIN = 5, CALIB_IMG_MAX = 4096; // sides of reference images

struct calib_drnu_input_t {
    const par_tq_hdr *hdr; // for its two versions
    calib_blk_info_t info;
    uint8_t *payload; // nref records of calib_ref_img_t and image; changed in place
    uint64_t payload_size;
    uint8_t ref_conv; // with info.ref_is_z: reference distances are depths
    double cx, cy, fx, fy;
};

// Computes the correction of one frequency: info, global terms, periodic error, planes and the whole image as
// ROI are set in res, all else is left alone. The planes that res had are not freed.
//
// A pixel that no line fits gets the global line; a doubtful global fit only warns. False, with a log line,
// when the input makes no sense or memory is short. Ends the process when a size or the scale is 0.
bool calib_drnu_result_calc(calib_drnu_input_t *in, calib_result_t *res);
