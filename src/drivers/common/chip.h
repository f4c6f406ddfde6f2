// What the chip families share: the record that a driver keeps of its device, and all that is done to it
// alike. A family's record begins with this one, and a table tells what the family brings itself.
//
// Locks: calib_lock guards the calibration, the device's region and the gray reference; the bilateral
// filter's own lock guards that filter; the two never nest. decode_lock serialises decodes of one device on
// several threads, which share amplitudes and filter state; it is taken first, and no parameter is written
// under it. Switches and settings are changed by any thread while a frame is decoded, and are relaxed words:
// a frame may meet the old value.
#pragma once

#include <atomic>

#include "api/device.h"
#include "calib/calib_result.h"
#include "drivers/common/bilateral.h"
#include "drivers/common/booster.h"
#include "drivers/common/frame_clock.h"
#include "drivers/common/frame_hash.h"
#include "drivers/common/lens_source.h"
#include "drivers/common/mutex.h"
#include "drivers/common/temperature.h"
#include "drivers/common/work_buf.h"
#include "drivers/driver.h"
#include "util/relaxed.h"

enum { CHIP_CALIB_FREQ_NUM = 100 };
enum { CHIP_FMT_CALIB = 171 }; // calibration data in a frame

struct chip_priv_t;

struct chip_family_t {
    struct { // under which lines of the log go out
        const char *init, *calib_load, *mount, *update_roi, *lens_param_get, *filter_enable, *filter_disable,
            *frame_get_info, *frame_raw_proc;
    } name;
    uint32_t sensor_w, sensor_h;
    uint32_t fallback_freq; // of an uncalibrated device that doesn't tell its own
    temp_limits_t temp_limits;
    lens_default_t *lens;

    bool (*read_freq)(chip_priv_t *p, uint32_t freq[2]); // at which the device runs; the second 0 with one
    void (*freq_change)(tqcam_drv_t *drv, uint32_t f0, uint32_t f1);
    // These three under calib_lock. Mounting is for mod_freq0 and mod_freq1; -1 when nothing applies.
    bool (*calib_is_ready)(const chip_priv_t *p);
    int (*mount)(chip_priv_t *p);
    void (*unmount)(chip_priv_t *p);
    void (*release)(chip_priv_t *p); // deletes the record
};

struct chip_priv_t {
    const chip_family_t *family;
    tqcam_dev_t *dev;
    chip_priv_t *older; // record that this one displaced from the row

    relaxed_t<uint8_t> raw_mode, frame_ok, calib_ok;

    // Switches and settings, most of them a filter's of the API.
    relaxed_t<uint8_t> f_en_pix_calib;
    relaxed_t<uint8_t> f_en_minamp;
    relaxed_t<uint8_t> f_en_auto_intg;
    relaxed_t<uint8_t> f_en_sync_check;
    relaxed_t<uint8_t> f_en_temp_monitor{1};
    relaxed_t<uint8_t> hdr_en;
    relaxed_t<uint8_t> f_en_bpf2d_iir;
    relaxed_t<uint8_t> f_en_offset;
    relaxed_t<uint8_t> f_en_flyfilter;
    relaxed_t<uint8_t> f_en_hysteresis;
    relaxed_t<uint8_t> f_en_sys_calib;
    relaxed_t<uint8_t> f_en_gray;
    relaxed_t<uint8_t> f_en_temp_corr{1};
    relaxed_t<uint32_t> f_param_flyfilter_th; // 0 to 31
    relaxed_t<uint16_t> f_param_hysteresis{10};
    relaxed_t<uint16_t> min_amp;
    relaxed_t<uint16_t> sync_delay;
    relaxed_t<uint16_t> temp_period{75}; // recorded only
    relaxed_t<int32_t> user_offset;      // mm
    relaxed_t<uint8_t> denoise_args[3];
    relaxed_t<uint16_t> gray_div{200};
    relaxed_t<float> sys_scale{1.0f}, sys_offset; // as the device stores them; mm
    relaxed_t<uint32_t> intg_us;

    booster_t bfps;
    bilateral_t bpf;
    temp_state_t temp;
    frame_rate_t rate;
    relaxed_t<uint32_t> img_w, img_h;

    // Under calib_lock.
    drv_mutex_t calib_lock;
    calib_roi_t roi = {};
    char calib_path[64] = {};
    relaxed_t<uint32_t> mod_freq0, mod_freq1; // Hz, written under the lock; the second 0 with one frequency
    bool calib_mounted = false;
    uint32_t calib_freq_cnt = 0;
    uint32_t calib_freqs[CHIP_CALIB_FREQ_NUM] = {};
    work_buf_t gray_buf;
    tqcam_lens_param_t mapped_lens = {}; // what the lens map was made from

    // Under decode_lock.
    drv_mutex_t decode_lock;
    uint32_t info_hash = 0; // of the frame that amp_buf holds
    work_buf_t amp_buf;     // squared amplitudes
    work_buf_t work;        // images between filters
    work_buf_t hyst_state;

    bool lens_from_file = false;
    tq_lens_bin_t *lens_bin = nullptr;
    lens_pool_t lens_pool;                                  // grows under calib_lock
    std::atomic<const tq_lens_bin_t *> calib_lens{nullptr}; // in the pool; read without the lock
    relaxed_t<uint8_t> has_file_lens;
    tqcam_lens_param_t file_lens = {}; // of the calibration file's header
};

// The row's record; nullptr once it was released.
inline chip_priv_t *chip_priv(const tqcam_drv_t *drv)
{
    return static_cast<chip_priv_t *>(drv->priv);
}

// chip_open.cpp: the first and the last steps of a family's init, which do not return when they fail. p is a
// new record, nullptr when there was no memory for it. Between them, the family sets img_w and img_h.
void chip_open(tqcam_drv_t *drv, tqcam_dev_t *dev, const chip_family_t *family, chip_priv_t *p);
void chip_open_end(chip_priv_t *p, uint32_t gray_bytes, uint16_t bpf_range_max, float bpf_sigma_spatial,
                   float bpf_sigma_range);
void chip_uninit(tqcam_drv_t *drv);
int chip_reserved_a(tqcam_drv_t *drv, int zero0, int zero1);
int chip_reserved_b(tqcam_drv_t *drv, int zero0, int zero1);

// chip_events.cpp
void chip_sys_calib_refresh(chip_priv_t *p);
void chip_on_cap_state(tqcam_drv_t *drv, int started);
void chip_on_update_fps(tqcam_drv_t *drv, uint32_t fps);
void chip_on_update_gray_div(tqcam_drv_t *drv, uint16_t value);
// With fixed_size, frames stay as large as they are, whatever the region.
void chip_update_roi(chip_priv_t *p, const uint8_t *value, bool fixed_size);

// chip_filters.cpp: the filters that all families have alike; false for any other one.
bool chip_filter_needs_arg(uint32_t filter_id);
bool chip_filter_enable(chip_priv_t *p, uint32_t filter_id, const tqcam_filter_arg_t *arg);
bool chip_filter_disable(chip_priv_t *p, uint32_t filter_id);
// The denoise filter. With a 240 its settings are fixed, whatever the frequency, and b is their strength:
// true, and the family calls the second one.
bool chip_denoise_enable(chip_priv_t *p, uint8_t a, uint8_t b);
void chip_denoise_fix(chip_priv_t *p, uint16_t range_max, float sigma_spatial, float sigma_range);

// chip_lens.cpp
bool chip_lens_param_get(tqcam_drv_t *drv, tqcam_lens_param_t *out, int w, int h, int reserved);
const tq_lens_bin_t *chip_lens_rec_get(tqcam_drv_t *drv);
// Under calib_lock; *lens is zero on failure.
void chip_lens_update(chip_priv_t *p, tqcam_lens_param_t *lens);

// chip_calib.cpp
int chip_calib_load(tqcam_drv_t *drv, int zero0, int zero1, int two);
int chip_calib_freq_get(tqcam_drv_t *drv, uint32_t *freqs, uint32_t *count);
// What mounting is made of; all under calib_lock, in this order. The calibration of mod_freq0 (row 0) or
// mod_freq1 (row 1) comes from the file and is cut to the device's region; false when nothing applies. Row 0
// brings the list of frequencies and the lens, and the file's first frequency where none is set.
bool chip_calib_read(chip_priv_t *p, calib_result_t *c, int row);
bool chip_calib_cut(chip_priv_t *p, calib_result_t *c);
void chip_calib_log(const chip_priv_t *p, const calib_result_t *c, uint32_t freq, const float *tcoef_mm);
void chip_calib_log_none(const chip_priv_t *p, const calib_result_t *c, const char *caller);

// chip_frame.cpp
void chip_frame_temperatures(chip_priv_t *p, const tq_frame_hdr_t *hdr);
void chip_frame_temp_monitor(chip_priv_t *p, bool on);
// Fills out, and counts the frame. w and h stand for a header that tells none.
void chip_frame_info(chip_priv_t *p, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr, uint32_t w,
                     uint32_t h);
// Light of the scene without modulation, as a correction of the samples; all zero unless on. With exact, the
// buffer shrinks, too.
void chip_take_gray_reference(chip_priv_t *p, const void *raw, uint32_t bytes, bool exact, bool on);
