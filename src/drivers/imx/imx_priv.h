// The SONY driver's private record and the functions that its files share. Beside what all families have
// there are two modulation frequencies, each with a calibration of its own, use cases, filter parameters that
// follow the frequency, and integration times that the device sets by itself.
#pragma once

#include "drivers/common/chip.h"
#include "drivers/imx/imx_format.h"
#include "drivers/imx/imx_kernels.h"
#include "drivers/tqtele.h"

enum { IMX_TCOEF_NUM = 10, IMX_USE_CASES = 4, IMX_TELE_VARS = 12 };
inline constexpr uint32_t IMX_SENSOR_W = 640, IMX_SENSOR_H = 480;
inline constexpr uint32_t IMX_GRAY_BYTES = 614400;

// Calibration of one modulation frequency.
struct imx_row_t {
    calib_result_t calib = {};
    calib_temp_hdr_t temp_hdr = {};
    float tcoef_mm[IMX_TCOEF_NUM] = {}; // mm per degree, and the terms of the integration time
};

struct imx_priv_t : chip_priv_t {
    relaxed_t<uint8_t> f_en_median;
    relaxed_t<uint8_t> f_en_fill_hole;
    relaxed_t<uint8_t> f_en_gaus_iir; // registry only
    relaxed_t<uint8_t> dual_freq;     // the last frequency event had two
    relaxed_t<uint16_t> auto_intg_value;
    relaxed_t<float> user_scale{1.0f};
    relaxed_t<uint8_t> median_ksize{5};
    relaxed_t<float> f_param_gaus_iir_sigma{0.1f}; // registry only
    relaxed_t<int32_t> saved_fmt{-1};              // format to return to after HDR
    relaxed_t<uint32_t> cur_use_case;

    bool is_imx570 = false; // its calibration brings temperature coefficients for each frequency
    void *tele = nullptr;
    tqtele_var_t tele_table[IMX_TELE_VARS];

    // Under calib_lock.
    int32_t dmax = 0;             // range of the only frequency in mm
    int32_t dmax0 = 0, dmax1 = 0; // of two
    bool temp_model_ready = false;
    imx_row_t rows[2]; // of mod_freq0 and mod_freq1
    tqcam_use_case_t use_cases[IMX_USE_CASES];
};

inline imx_priv_t *imx_priv(const tqcam_drv_t *drv)
{
    return static_cast<imx_priv_t *>(chip_priv(drv));
}

// imx_driver.cpp
extern lens_default_t imx_lens_default;

// imx_events.cpp
void imx_event_freq_change(tqcam_drv_t *drv, uint32_t f0, uint32_t f1);
void imx_on_update_intg_time(tqcam_drv_t *drv, uint32_t us, int index);
void imx_on_update_fmt(tqcam_drv_t *drv, uint32_t fmt);
void imx_on_update_mod_freq(tqcam_drv_t *drv, uint32_t f0, uint32_t f1, uint32_t reserved);
void imx_on_update_roi(tqcam_drv_t *drv, const uint8_t *roi);

// imx_filters.cpp
bool imx_filter_enable(tqcam_drv_t *drv, uint32_t filter_id, const tqcam_filter_arg_t *arg);
bool imx_filter_disable(tqcam_drv_t *drv, uint32_t filter_id);

// imx_use_cases.cpp
void imx_use_cases_init(imx_priv_t *p);
int imx_use_case_list(tqcam_drv_t *drv, tqcam_use_case_t *cases, uint8_t cap);
int imx_use_case_set(tqcam_drv_t *drv, uint32_t index);
int imx_use_case_get(tqcam_drv_t *drv, tqcam_use_case_t *record);

// imx_calib.cpp; all under calib_lock
int imx_calc_mount_calib(chip_priv_t *chip); // for one frequency or two; sets the ranges
void imx_calc_unmount_calib(chip_priv_t *chip);
bool imx_calib_is_ready(const chip_priv_t *chip);
void imx_calib_mirror(calib_result_t *c); // left and right, before a region was cut
float imx_temp_corr_phase(const imx_priv_t *p, int index);

// imx_frame_info.cpp
bool imx_frame_get_info(tqcam_drv_t *drv, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr,
                        const void *data, uint32_t len);
int imx_frame_raw_proc(tqcam_drv_t *drv, void *raw, uint32_t count, const tqcam_frame_info_t *info);
int imx_frame_need_data(tqcam_drv_t *drv, void *raw, uint32_t count, tqcam_frame_info_t *out);

// imx_distance.cpp: one frame to distance and squared amplitude, w * h values each, in sensor order. Results
// are 1, and 0 for frames that bring no distance, with nothing written.
struct imx_frame_t {
    const void *raw; // as long as the layout needs
    const imx_format_t *format;
    imx_layout_t layout;
    bool bit7; // of the frame's format
    uint32_t w, h;
    uint16_t *dist;
    uint32_t *amp;
};
int imx_calc_dist_calib_none(imx_priv_t *p, const imx_frame_t &f);          // under calib_lock, as the others
int imx_calc_dist_calib_simple_sincor(imx_priv_t *p, const imx_frame_t &f); // one line for all pixels
int imx_calc_dist_calib_drnu(imx_priv_t *p, const imx_frame_t &f);          // a line for each pixel
int imx_calc_gray(uint16_t *gray, const imx_frame_t &f);

// imx_decode.cpp
int imx_frame_decode(tqcam_drv_t *drv, void *dst, uint32_t dst_size, int kind, const void *raw,
                     uint32_t raw_len, const tqcam_frame_info_t *info);
