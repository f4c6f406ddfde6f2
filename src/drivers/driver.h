// What differs between sensor chips stands behind one table of operations. The API finds a row by the chip
// word in the device's product string and calls the row's operations; it never looks at a chip itself.
//
// All operations run on application threads, none on a link's event thread, and with no lock of the library
// held, apart from the events of a capture start and stop, which come one after the other. A driver reaches
// its device only through the parameter and register calls of the API. Slots marked optional may be nullptr
// and are tested by their callers.
#pragma once

#include "tqcam.h"
#include "tqcam_param.h"

struct tq_frame_hdr_t;
struct tq_lens_bin_t;

enum { DRV_KIND_RAW = 0, DRV_KIND_DIST = 1, DRV_KIND_GRAY = 2 };

// frame_raw_proc: the frame fed the driver's own state and is not an image.
enum { DRV_FRAME_CONSUMED = 0xDCBA };

struct tqcam_drv_ops_t {
    // Allocates the private record and sets dev in the row; false ends the open.
    bool (*init)(tqcam_drv_t *drv, tqcam_dev_t *dev);
    void (*uninit)(tqcam_drv_t *drv);

    // Fills out from the 24-byte frame header and the frame's first len bytes. False: the frame is not
    // usable.
    bool (*frame_get_info)(tqcam_drv_t *drv, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr,
                           const void *data, uint32_t len);
    // Decodes one raw frame into dst (dst_size bytes); bytes written, negative on failure.
    int (*frame_decode)(tqcam_drv_t *drv, void *dst, uint32_t dst_size, int kind, const void *raw,
                        uint32_t raw_len, const tqcam_frame_info_t *info);
    // Optional. Produces a frame of the driver's own into raw if it has one; result above 0: frames produced.
    // The caller has made sure that raw holds the largest frame that frame_raw_proc has seen.
    int (*frame_need_data)(tqcam_drv_t *drv, void *raw, uint32_t count, tqcam_frame_info_t *out);
    // Optional. Sees a retrieved frame of info->frame_size bytes before it is handed on; may replace its
    // bytes.
    int (*frame_raw_proc)(tqcam_drv_t *drv, void *raw, uint32_t count, const tqcam_frame_info_t *info);

    // Optional. Lens parameters scaled to a frame size.
    bool (*lens_param_get)(tqcam_drv_t *drv, tqcam_lens_param_t *out, int w, int h, int reserved);
    // Optional. The lens record in use, the driver's own, or nullptr.
    const tq_lens_bin_t *(*lens_rec_get)(tqcam_drv_t *drv);
    // Optional. Copies calibrated frequencies; *count is the capacity of freqs on entry, the entries copied
    // on return.
    int (*calib_freq_get)(tqcam_drv_t *drv, uint32_t *freqs, uint32_t *count);

    int (*use_case_list)(tqcam_drv_t *drv, tqcam_use_case_t *cases, uint8_t cap);
    int (*use_case_set)(tqcam_drv_t *drv, uint32_t index);           // optional
    int (*use_case_get)(tqcam_drv_t *drv, tqcam_use_case_t *record); // optional

    // Optional, all of them: events, after the device has taken the change.
    void (*on_cap_state)(tqcam_drv_t *drv, int started);
    void (*on_update_fps)(tqcam_drv_t *drv, uint32_t fps);
    void (*on_update_intg_time)(tqcam_drv_t *drv, uint32_t us, int index);
    void (*on_update_fmt)(tqcam_drv_t *drv, uint32_t fmt);
    void (*on_update_mod_freq)(tqcam_drv_t *drv, uint32_t f0, uint32_t f1, uint32_t reserved);
    void (*on_update_gray_div)(tqcam_drv_t *drv, uint16_t value);
    void (*on_update_roi)(tqcam_drv_t *drv, const uint8_t *roi); // the 13 bytes of the parameter's value

    // Finds calibration and decides the modulation frequency; negative on failure, which does not end the
    // open.
    int (*drv_calib_load)(tqcam_drv_t *drv, int zero0, int zero1, int two);
    int (*reserved_a)(tqcam_drv_t *drv, int zero0, int zero1);
    int (*reserved_b)(tqcam_drv_t *drv, int zero0, int zero1);

    // Optional. False for a filter that the chip doesn't have and for a camera that refused.
    bool (*filter_enable)(tqcam_drv_t *drv, uint32_t filter_id, const tqcam_filter_arg_t *arg);
    bool (*filter_disable)(tqcam_drv_t *drv, uint32_t filter_id);
};

// One row of the driver table. A row binds one live device for each chip word: a second device of the same
// chip takes over dev and priv of the first.
struct tqcam_drv_t {
    const char *desc;
    const char *chip;
    const tqcam_drv_ops_t *ops;
    tqcam_dev_t *dev;
    void *priv;
};

extern const tqcam_drv_ops_t op8241_ops; // op8241_driver.cpp
extern const tqcam_drv_ops_t epc_ops;    // epc/epc_driver.cpp
extern const tqcam_drv_ops_t imx_ops;    // imx/imx_driver.cpp
