// The TI OP8241: a stub that shows raw frames of a fixed layout. A pixel is two words, gray and distance, of
// which the low 12 bits count.
#include <climits>
#include <cstring>

#include "drivers/driver.h"
#include "tq_stream.h"

static bool _init(tqcam_drv_t *drv, tqcam_dev_t *dev)
{
    drv->dev = dev;
    return true;
}

static void _uninit(tqcam_drv_t *) {}

static bool _frame_get_info(tqcam_drv_t *, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr, const void *,
                            uint32_t)
{
    memset(out, 0, sizeof(*out));
    out->frame_size = hdr->frame_len;
    out->frame_format = hdr->frame_fmt;
    out->frame_idx = hdr->frame_idx;
    out->width = 320;
    out->height = 240;
    out->pixel_bytes = 4;
    return true;
}

// Writes f32, but the result counts pixels.
static int _frame_decode(tqcam_drv_t *, void *dst, uint32_t dst_size, int kind, const void *raw,
                         uint32_t raw_len, const tqcam_frame_info_t *info)
{
    const uint64_t pixels = uint64_t{info->width} * info->height;
    if (pixels > INT_MAX)
        return -1;
    if (kind != DRV_KIND_DIST && kind != DRV_KIND_GRAY)
        return static_cast<int>(pixels);
    const uint8_t *src = static_cast<const uint8_t *>(raw);
    uint8_t *out = static_cast<uint8_t *>(dst);
    const bool dist = kind == DRV_KIND_DIST;
    for (uint32_t i = 0; i < raw_len / 4 && i < dst_size / sizeof(float); i++) {
        uint16_t words[2];
        memcpy(words, src + 4 * size_t{i}, sizeof(words));
        const double value = (words[dist ? 1 : 0] & 4095) * (1.0 / 4096);
        const float result = static_cast<float>(dist ? value * 3.122838020324707 : value);
        memcpy(out + sizeof(float) * i, &result, sizeof(result));
    }
    return static_cast<int>(pixels);
}

static int _use_case_list(tqcam_drv_t *, tqcam_use_case_t *, uint8_t)
{
    return 0;
}
static int _second(tqcam_drv_t *, int, int second)
{
    return second;
}
static int _drv_calib_load(tqcam_drv_t *, int, int zero1, int)
{
    return zero1;
}
static int _one(tqcam_drv_t *, int, int)
{
    return 1;
}

const tqcam_drv_ops_t op8241_ops = {
    .init = _init,
    .uninit = _uninit,
    .frame_get_info = _frame_get_info,
    .frame_decode = _frame_decode,
    .frame_need_data = nullptr,
    .frame_raw_proc = nullptr,
    .lens_param_get = nullptr,
    .lens_rec_get = nullptr,
    .calib_freq_get = nullptr,
    .use_case_list = _use_case_list,
    .use_case_set = nullptr,
    .use_case_get = nullptr,
    .on_cap_state = nullptr,
    .on_update_fps = nullptr,
    .on_update_intg_time = nullptr,
    .on_update_fmt = nullptr,
    .on_update_mod_freq = nullptr,
    .on_update_gray_div = nullptr,
    .on_update_roi = nullptr,
    .drv_calib_load = _drv_calib_load,
    .reserved_a = _second,
    .reserved_b = _one,
    .filter_enable = nullptr,
    .filter_disable = nullptr,
};
