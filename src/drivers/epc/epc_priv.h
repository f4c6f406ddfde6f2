// The EPC driver's private record and the functions that its files share.
#pragma once

#include "drivers/common/chip.h"
#include "drivers/epc/epc_kernels.h"

enum { EPC_VARIANT_ROI = 2, EPC_VARIANT_160X60 = 4 };
inline constexpr uint16_t EPC_INVALID_DIST = 65500;
inline constexpr uint32_t EPC_GRAY_BYTES = 153600; // 320 x 240 samples

// Formats of frames.
enum {
    EPC_FMT_2DCS = 1,
    EPC_FMT_4DCS = 2,
    EPC_FMT_1DCS = 4,
    EPC_FMT_NONE = 8,
    EPC_FMT_1DCS_B = 10,
    EPC_FMT_GRAY_REF = 11
};

// How a frame is laid out: planes that follow each other, and how they are used.
struct epc_mode_t {
    uint8_t planes; // in the frame
    uint8_t dcs;    // 1, 2 or 4
    bool interleaved;
    bool upper_bits; // 4 DCS of the 160 x 60 sensor: the sample stands in the word's upper bits
};

struct epc_priv_t : chip_priv_t {
    relaxed_t<uint32_t> chip_variant;
    relaxed_t<uint8_t> f_en_denoise;
    relaxed_t<uint8_t> denoise_median;   // recorded only
    relaxed_t<uint8_t> denoise_level{5}; // recorded only
    relaxed_t<uint8_t> sport_en;
    relaxed_t<uint8_t> sport_mode;       // 0, 1 or 2
    relaxed_t<uint16_t> auto_intg_ratio; // per mille
    relaxed_t<uint16_t> hdr_intg;

    // The frequency event's.
    relaxed_t<float> tc_k_cb{13.78f}, tc_k_ib{1.183f};
    relaxed_t<uint32_t> tc_k0{295}, tc_k0_ph;
    relaxed_t<float> tc_k_cb_ph, tc_k_ib_ph;
    relaxed_t<int32_t> dmax; // range in mm

    relaxed_t<uint32_t> last_frame_size; // of the frame seen last

    // Under calib_lock.
    calib_result_t calib = {};
    epc_after_t after_key = {}; // of after_table
    uint32_t after_n = 0;
    work_buf_t after_table;
    epc_dist_t phase_key = {}; // of phase_table, and whether it was made
    bool phase_made = false;
    work_buf_t phase_table;
    uint8_t gray_ready = 0; // nothing sets it: the reference stays zero

    epc_priv_t()
    {
        f_en_minamp = f_en_offset = f_en_hysteresis = f_en_sys_calib = f_en_gray = 1;
        min_amp = 30;
    }
};

// The row's record; nullptr once it was released.
inline epc_priv_t *epc_priv(const tqcam_drv_t *drv)
{
    return static_cast<epc_priv_t *>(chip_priv(drv));
}

// epc_events.cpp
void epc_event_freq_change(tqcam_drv_t *drv, uint32_t f0, uint32_t f1);
void epc_on_update_intg_time(tqcam_drv_t *drv, uint32_t us, int index);
void epc_on_update_fmt(tqcam_drv_t *drv, uint32_t fmt);
void epc_on_update_mod_freq(tqcam_drv_t *drv, uint32_t f0, uint32_t f1, uint32_t reserved);
void epc_on_update_roi(tqcam_drv_t *drv, const uint8_t *roi);

// epc_driver.cpp
extern lens_default_t epc_lens_default;

// epc_filters.cpp
bool epc_filter_enable(tqcam_drv_t *drv, uint32_t filter_id, const tqcam_filter_arg_t *arg);
bool epc_filter_disable(tqcam_drv_t *drv, uint32_t filter_id);

// epc_calib.cpp; all under calib_lock
int epc_calc_mount_calib(chip_priv_t *chip);
void epc_calc_unmount_clib(chip_priv_t *chip);
bool epc_calib_is_ready(const chip_priv_t *chip);
float _calc_get_temp_corr_phase(const epc_priv_t *p);

// epc_frame_info.cpp
bool epc_frame_get_info(tqcam_drv_t *drv, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr,
                        const void *data, uint32_t len);

// epc_booster.cpp
int epc_frame_raw_proc(tqcam_drv_t *drv, void *raw, uint32_t count, const tqcam_frame_info_t *info);
int _feature_bfps_need_data(tqcam_drv_t *drv, void *raw, uint32_t count, tqcam_frame_info_t *out);

// epc_auto_intg.cpp
int _feature_auto_intg_calc_step(const uint16_t *raw, size_t bytes, uint32_t ratio);
void _feature_auto_intg(epc_priv_t *p, const uint16_t *raw, size_t bytes);

// epc_distance.cpp: one frame to distance and squared amplitude, w * h values each. Results are 1, and 0 for
// a shape that isn't handled, with nothing written. With sort, rows go where they belong in the image, else
// they stay as they leave the sensor.
struct epc_frame_t {
    const uint16_t *raw; // w * h samples for each plane
    uint32_t w, h;       // h is even and at least 4 in the interleaved modes
    epc_mode_t mode;
    bool sort;
    uint16_t *dist;
    uint32_t *amp;
};
int epc_calc_dist_raw(epc_priv_t *p, const epc_frame_t &f); // uncalibrated
int epc_calc_dist(epc_priv_t *p, const epc_frame_t &f);     // as calibration and switches tell
int epc_calc_gray(const epc_frame_t &f);                    // into dist; amp isn't used

// epc_decode.cpp
int epc_frame_decode(tqcam_drv_t *drv, void *dst, uint32_t dst_size, int kind, const void *raw,
                     uint32_t raw_len, const tqcam_frame_info_t *info);
