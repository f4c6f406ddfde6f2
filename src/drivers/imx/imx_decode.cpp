// One raw frame to a distance or gray image: what runs, in which order. Images go back and forth between the
// caller's buffer and one of the driver's, and begin where the last step leaves the result in the caller's.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "drivers/common/amp_kernels.h"
#include "drivers/common/sync_check.h"
#include "drivers/imx/imx_priv.h"
#include "log/log.h"
#include "tq_filter.h"

static const char *const _fn = "imx_frame_decode";

static int _malloc_failed()
{
    LOG_AS(6, "ERR", _fn, "[%s]malloc failed\n");
    return -1;
}

// Distance and squared amplitude. A frame that brings no distance leaves an empty
// image.
static void _calc(imx_priv_t *p, imx_frame_t f, int kind)
{
    DrvLock lock(p->calib_lock); // planes and terms must stay until the frame is done
    const auto calc = kind == DRV_KIND_RAW || !imx_calib_is_ready(p) ? imx_calc_dist_calib_none
                      : p->f_en_pix_calib                            ? imx_calc_dist_calib_drnu
                                                                     : imx_calc_dist_calib_simple_sincor;
    if (calc(p, f))
        return;
    const size_t n = size_t{f.w} * f.h;
    std::memset(f.dist, 0, n * sizeof(*f.dist));
    std::memset(f.amp, 0, n * sizeof(*f.amp));
}

// Only dark pixels are dropped here: this chip marks saturated ones by itself.
static void _feature_minamp_filter(imx_priv_t *p, uint16_t *image, size_t n)
{
    if (!p->f_en_minamp)
        return;
    const int64_t least = p->min_amp, band = p->f_param_hysteresis, lo = least * least;
    const uint32_t *amp = p->amp_buf.as<uint32_t>();
    if (!p->f_en_hysteresis) {
        min_amp(image, amp, n, {static_cast<uint32_t>(lo), UINT32_MAX, 0, UINT32_MAX});
        return;
    }
    if (!p->hyst_state.need(n)) {
        LOG_ERROR("[%s]malloc failed\n");
        std::exit(-3);
    }
    // A pixel without any light is bad in the band, too.
    const int64_t drop = std::max<int64_t>(lo - band * band, lo > 0 ? 1 : 0);
    min_amp_hyst(image, p->hyst_state.as<uint8_t>(), amp, n,
                 {static_cast<uint32_t>(lo), UINT32_MAX, static_cast<uint32_t>(drop), UINT32_MAX});
}

static int _decode_dist(imx_priv_t *p, imx_frame_t f, int kind, const tqcam_frame_info_t *info)
{
    const size_t n = size_t{f.w} * f.h;
    const int w = static_cast<int>(f.w), h = static_cast<int>(f.h);
    DrvLock lock(p->decode_lock);
    p->info_hash = FRAME_HASH_NONE;
    if (!p->amp_buf.need(n * sizeof(uint32_t)) || !p->work.need(n * sizeof(uint16_t)))
        return _malloc_failed();
    f.amp = p->amp_buf.as<uint32_t>();
    p->raw_mode = kind == DRV_KIND_RAW;
    uint16_t *const dst = f.dist;
    if (kind == DRV_KIND_RAW) {
        _calc(p, f, kind);
        return static_cast<int>(2 * n);
    }

    const bool filters = f.w >= 2 && f.h >= 2; // images of one row or column have no neighbours
    const bool median = filters && p->f_en_median && p->median_ksize > 1;
    const bool smooth = filters && p->f_en_bpf2d_iir, fly = filters && p->f_en_flyfilter;
    const bool fill = filters && p->f_en_fill_hole;
    uint16_t *image = dst, *other = p->work.as<uint16_t>();
    if ((median + smooth + fly + fill) % 2 != 0)
        std::swap(image, other);

    f.dist = image;
    _calc(p, f, kind);
    p->info_hash = frame_hash(info);
    if (median) {
        tq_median2d_u16(other, image, w, h, 3);
        std::swap(image, other);
    }
    if (smooth) {
        if (!bilateral_run(&p->bpf, other, image, f.w, f.h))
            std::memcpy(other, image, n * sizeof(*image)); // not of this size: the frame stays as it is
        std::swap(image, other);
    }
    if (fly) {
        const int strength = static_cast<int>(std::min<uint32_t>(p->f_param_flyfilter_th, 31));
        tq_flypix_u16_k3(other, image, w, h, 32 - strength);
        std::swap(image, other);
    }
    _feature_minamp_filter(p, image, n);
    if (fill) {
        tq_fhole_u16_k3(other, image, w, h, 0);
        std::swap(image, other);
    }
    zero_amp(image, p->amp_buf.as<uint32_t>(), n);
    return static_cast<int>(2 * n);
}

static int _decode_gray(imx_priv_t *p, const imx_frame_t &f, const tqcam_frame_info_t *info)
{
    const size_t n = size_t{f.w} * f.h;
    DrvLock lock(p->decode_lock);
    if (p->amp_buf.data && p->amp_buf.size == n * sizeof(uint32_t) && p->info_hash == frame_hash(info)) {
        LOG_AS(0, "TRC", _fn, "[%s]use confid hash to calc gray ...\n");
        amp_to_gray(f.dist, p->amp_buf.as<uint32_t>(), n);
    } else if (!imx_calc_gray(f.dist, f)) {
        std::memset(f.dist, 0, n * sizeof(*f.dist));
    }
    return static_cast<int>(2 * n);
}

// Are the buffers as large as this frame claims?
static bool _size_ok(const imx_frame_t &f, uint64_t bytes, uint32_t dst_size, const tqcam_frame_info_t *info)
{
    const uint64_t n = uint64_t{f.w} * f.h;
    if (n <= INT_MAX / 2 && dst_size >= 2 * n && bytes >= f.layout.needs())
        return true;
    if (f.format->code == IMX_FMT_PACKED)
        LOG_AS(6, "ERR", _fn, "[%s]wrong data len: src=%d, dst=%d, frame_size=%d, meta_size=%d\n",
               static_cast<uint32_t>(bytes), dst_size, info->frame_size, info->meta_size);
    else
        LOG_AS(6, "ERR", _fn, "[%s]wrong data len: src=%d, dst=%d\n", static_cast<uint32_t>(bytes), dst_size);
    return false;
}

static bool _sync_ok(imx_priv_t *p, const void *raw, size_t bytes, uint64_t pixels)
{
    work_buf_t aligned;
    if (reinterpret_cast<uintptr_t>(raw) % sizeof(uint16_t) != 0) {
        if (!aligned.need(bytes))
            return true;
        std::memcpy(aligned.data, raw, bytes);
        raw = aligned.data;
    }
    if (sync_is_good(static_cast<const uint16_t *>(raw), bytes, pixels))
        return true;
    p->frame_ok = 0;
    return !sync_correct(p->dev, p->sync_delay);
}

int imx_frame_decode(tqcam_drv_t *drv, void *dst, uint32_t dst_size, int kind, const void *raw,
                     uint32_t raw_len, const tqcam_frame_info_t *info)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p || !dst || !raw || !info)
        return -1;
    tqtele_sync(p->tele, false);
    _filter_bpf_reload_parameter(&p->bpf, p->img_w, p->img_h, false);
    LOG_TRACE("[%s]src_len:%d decode:0x%0x ,%d, 0x%x\n", raw_len, info->frame_format, kind, info->frame_size);

    const imx_format_t *format = imx_format_find(info->frame_format);
    if (!format) {
        const uint16_t code = info->frame_format & 0xFF7F;
        if (code != 0 && (code != IMX_FMT_NONE || kind == DRV_KIND_DIST))
            p->frame_ok = 0;
        return -1;
    }
    if (format->code == IMX_FMT_HDR)
        LOG_DEBUG("[%s]HDR frame received\n");
    imx_frame_t f = {};
    f.raw = raw;
    f.format = format;
    f.layout = imx_layout_of(*format, info);
    f.bit7 = (info->frame_format & IMX_FMT_BIT7) != 0;
    f.w = info->width;
    f.h = info->height;
    f.dist = static_cast<uint16_t *>(dst);
    const uint32_t bytes = std::min(info->frame_size, raw_len);
    if (!_size_ok(f, bytes, dst_size, info)) {
        p->frame_ok = 0;
        return -1;
    }
    if (p->f_en_sync_check && !_sync_ok(p, raw, bytes, uint64_t{f.w} * f.h))
        return -1;
    switch (kind) {
    case DRV_KIND_RAW:
    case DRV_KIND_DIST:
        return _decode_dist(p, f, kind, info);
    case DRV_KIND_GRAY:
        return _decode_gray(p, f, info);
    default:
        p->frame_ok = 0;
        return -1;
    }
}
