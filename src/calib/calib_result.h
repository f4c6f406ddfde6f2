// What a chip driver draws from a calibration file for one modulation frequency: the per-pixel line that maps
// measured to true distance, the global terms, the temperature model and the lens tables. The driver owns the
// record and guards it with its calibration mutex; the functions here take no lock.
#pragma once

#include <cstdint>

#include "tqcam_param.h"

// Description of a DRNU block, the same bytes in the file.
struct TQCAM_PACKED calib_blk_info_t {
    uint32_t freq; // modulation frequency, Hz
    uint8_t rsv[4];
    float ref_cm;   // reference distance of all images; used below block version 142
    uint32_t intg;  // integration time of the images
    int16_t t_cal0; // CB temperature at calibration, tenths of a degree
    int16_t t_cal1; // IB temperature
    int8_t nref;    // number of reference images
    uint8_t fps;
    uint8_t aux0, aux1;
    uint8_t ref_is_z; // reference distances are depths along the axis
    uint32_t img_w, img_h;
    uint32_t scale; // phase value of one full turn in the reference images
};
static_assert(sizeof(calib_blk_info_t) == 37);

// Part of the sensor that frames show. Bounds are inclusive. Binning 0 to 4 takes 1x1, 2x2, 4x4, 8x8 and 2x4
// (columns by rows) pixels into one.
struct TQCAM_PACKED calib_roi_t {
    uint16_t srow, erow, scol, ecol;
    uint8_t binning;
    uint8_t carried[4];
};
static_assert(sizeof(calib_roi_t) == 13);

// Description of a temperature block, the same bytes in the file.
struct TQCAM_PACKED calib_temp_hdr_t {
    uint8_t rsv0[2];
    uint32_t freq; // modulation frequency, Hz
    uint8_t rsv1[4];
    int16_t tenv; // environment temperature, tenths of a degree
    uint16_t cnt; // samples or coefficients in the block
    uint8_t fps;
    uint16_t roi[4];
    uint16_t intg;
};
static_assert(sizeof(calib_temp_hdr_t) == 25);

inline constexpr uint32_t CALIB_TCOEF_NUM = 16;

struct calib_result_t {
    calib_blk_info_t blk;
    uint8_t roi_applied;        // the planes were cut to roi
    calib_roi_t roi;            // what the planes show
    int32_t slope_k;            // global slope times 1000; 1000 after a reset
    int32_t offset;             // global offset, mm
    float amp, omega, pha, ofs; // periodic error: d + amp * sin(omega * d + pha) + ofs is corrected
    uint8_t carried[24];        // from a ready result, as read
    // Per-pixel slopes, and behind them per-pixel offsets in mm. Each plane has room for img_w * img_h
    // values; after a ROI was applied the offsets begin img_w * img_h / (pixels of a bin) values behind the
    // slopes, whatever the size of the ROI.
    float *planes;
    calib_temp_hdr_t tcoef_hdr;      // of the block that the coefficients come from
    float tcoef[CALIB_TCOEF_NUM];    // temperature coefficients, phase per degree
    float tcoef_mm[CALIB_TCOEF_NUM]; // the same in mm per degree
    uint32_t tcoef_cnt;              // valid coefficients; 0: the file brought none
    tq_lens_bin_t *lens;             // or NULL
};

// Loads what a file holds for the frequency freq in Hz, or for its first frequency when freq is 0, into res.
// A result that is already there without a ROI and suits is kept as it is.
//
// freq_list  receives the frequencies of all DRNU blocks, or NULL
// freq_cnt   on entry the room in freq_list, on return the number listed; not NULL
//
// res must be reset or hold an earlier result: the buffers of that one are lost unless they were freed or are
// held elsewhere.
//
// Returns the frequency loaded; -1 when the file doesn't open or a block can't be read or computed; -2 when
// the file holds nothing for this frequency. res is empty after a block failed or none suited, and untouched
// when the file didn't open.
int32_t calib_load(const char *filename, uint32_t freq, calib_result_t *res, uint32_t *freq_list,
                   int32_t *freq_cnt);

// The frequency of a loaded result; 0 when nothing is loaded or, with roi given, when the planes show another
// part of the sensor.
uint32_t calib_result_freq(const calib_result_t *res, const calib_roi_t *roi);

// Frees the buffers and clears their pointers. NULL is allowed.
void calib_result_free(calib_result_t *res);

// Frees the buffers and makes the record empty: all 0 but a slope of 1.
void calib_result_reset(calib_result_t *res);

// Cuts the planes to a part of the sensor and averages them over its bins, in place. That can be done once:
// the way back is to load anew. The same roi again is true and changes nothing; another is false, as is one
// that leaves the image.
bool calib_drnu_result_apply_roi(calib_result_t *res, const calib_roi_t *roi);
