// One raw frame to a distance or gray image: what runs, in which order.
//
// Images go back and forth between the caller's buffer and one of the driver's, and begin where the last step
// leaves the result in the caller's. Rows are put in order as they are calculated, unless two integration
// times must be merged first.
#include "drivers/epc/epc_priv.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "drivers/common/amp_kernels.h"
#include "drivers/common/sync_check.h"
#include "log/log.h"

static constexpr uint16_t HDR_OFF_MARK = 0x5AA5; // a first integration time that means: don't merge

// What the steps of a decode share.
struct decode_t {
    epc_priv_t *p;
    const uint16_t *raw;
    size_t bytes; // of raw
    const tqcam_frame_info_t *info;
    uint32_t w, h;
    size_t n; // pixels
    epc_mode_t mode;
    bool sort;
    uint16_t *dst;
};

// False for formats that aren't images.
static bool _mode_of(epc_priv_t *p, const tqcam_frame_info_t *info, int kind, epc_mode_t *m)
{
    switch (info->frame_format) {
    case EPC_FMT_2DCS:
        *m = {2, 2, true, false};
        return true;
    case EPC_FMT_4DCS:
        if (p->sport_en)
            *m = {4, 2, false, false};
        else
            *m = {4, 4, false, p->chip_variant == EPC_VARIANT_160X60};
        return true;
    case EPC_FMT_1DCS:
    case EPC_FMT_1DCS_B:
        *m = {1, 1, true, false};
        return true;
    case 0:
        return false;
    case EPC_FMT_NONE:
        if (kind == DRV_KIND_DIST)
            p->frame_ok = 0;
        return false;
    case CHIP_FMT_CALIB:
        LOG_AS(1, "DBG", "epc_frame_decode", "[%s]Calibration data frame,size:%d\n", info->frame_size);
        p->frame_ok = 0;
        return false;
    default:
        p->frame_ok = 0;
        return false;
    }
}

// Does the information suit the buffers, and the height the way rows are used?
static bool _size_ok(const decode_t &c, uint32_t dst_size)
{
    const uint64_t n = uint64_t{c.w} * c.h;
    const bool fits = n <= INT_MAX / 2 && dst_size >= 2 * n && c.bytes >= 2 * n * c.mode.planes;
    const bool rows = (c.h % 2 == 0 || !(c.sort || c.mode.interleaved)) && (c.h >= 4 || !c.mode.interleaved);
    if (!fits || !rows)
        LOG_AS(6, "ERR", "epc_frame_decode",
               "[%s]wrong data len: src=%d, dst=%d, frame_size=%d, image=%ux%u, fmt=%d\n",
               static_cast<uint32_t>(c.bytes), dst_size, c.info->frame_size, c.w, c.h, c.info->frame_format);
    return fits && rows;
}

static int _malloc_failed()
{
    LOG_AS(6, "ERR", "epc_frame_decode", "[%s]malloc failed\n");
    return -1;
}

static bool _merges(const epc_priv_t *p)
{
    return p->hdr_en && p->hdr_intg != HDR_OFF_MARK;
}

static void _sort_or_copy(const decode_t &c, uint16_t *dst, const uint16_t *src)
{
    if (c.sort)
        epc_row_sort_u16_plain(dst, src, c.w, c.h);
    else
        memcpy(dst, src, c.n * sizeof(*dst));
}

// Distance into image and squared amplitude into amp_buf, rows in order. A shape that isn't handled leaves an
// empty image.
static void _calc(const decode_t &c, uint16_t *image, int kind)
{
    epc_priv_t *p = c.p;
    uint32_t *const amp = p->amp_buf.as<uint32_t>();
    const bool merge = kind == DRV_KIND_DIST && _merges(p);
    // Behind the image that the driver keeps.
    uint16_t *const raw_dist = p->work.as<uint16_t>() + c.n;
    uint32_t *const raw_amp = p->work.as<uint32_t>() + c.n;

    const epc_frame_t frame = {
        c.raw, c.w, c.h, c.mode, c.sort && !merge, merge ? raw_dist : image, merge ? raw_amp : amp};
    const int done = kind == DRV_KIND_DIST ? epc_calc_dist(p, frame) : epc_calc_dist_raw(p, frame);
    if (!done) {
        memset(frame.dist, 0, c.n * sizeof(*frame.dist));
        memset(frame.amp, 0, c.n * sizeof(*frame.amp));
    }
    if (!merge)
        return;
    epc_hdr_merge(raw_dist, raw_amp, c.w, c.h);
    _sort_or_copy(c, image, raw_dist);
    if (c.sort)
        epc_row_sort_u32_plain(amp, raw_amp, c.w, c.h);
    else
        memcpy(amp, raw_amp, c.n * sizeof(*amp));
}

static void _feature_minamp_filter(epc_priv_t *p, uint16_t *image, size_t n)
{
    if (p->f_en_hysteresis && !p->hyst_state.need(n)) {
        LOG_ERROR("[%s]malloc failed\n");
        exit(-3);
    }
    if (!p->f_en_minamp)
        return;
    const int64_t least = p->min_amp, band = p->f_param_hysteresis;
    const int64_t lo = least * least, hi = (2048 - least) * (2048 - least), h = band * band;
    const min_amp_t limits = {static_cast<uint32_t>(lo), static_cast<uint32_t>(hi),
                              static_cast<uint32_t>(std::max<int64_t>(lo - h, 0)),
                              static_cast<uint32_t>(std::min<int64_t>(hi + h, UINT32_MAX))};
    const uint32_t *amp = p->amp_buf.as<uint32_t>();
    if (p->hyst_state.data && p->f_en_hysteresis)
        min_amp_hyst(image, p->hyst_state.as<uint8_t>(), amp, n, limits);
    else
        min_amp(image, amp, n, limits);
}

static int _decode_dist(const decode_t &c, int kind)
{
    epc_priv_t *p = c.p;
    DrvLock lock(p->decode_lock);
    p->info_hash = FRAME_HASH_NONE;
    // An image, and the image and the amplitudes of a merge.
    if (!p->amp_buf.need(c.n * sizeof(uint32_t)) || !p->work.need(c.n * 8))
        return _malloc_failed();
    p->raw_mode = kind == DRV_KIND_RAW;
    if (kind == DRV_KIND_RAW) {
        _calc(c, c.dst, kind);
        p->info_hash = frame_hash(c.info);
        return static_cast<int>(2 * c.n);
    }

    // Images of one row or column have no neighbours to filter with.
    const bool filters = c.w >= 2 && c.h >= 2;
    const bool smooth = filters && p->f_en_bpf2d_iir, fly = filters && p->f_en_flyfilter;
    uint16_t *image = c.dst, *other = p->work.as<uint16_t>();
    if ((smooth + fly + filters) % 2 != 0)
        std::swap(image, other);

    _calc(c, image, kind);
    p->info_hash = frame_hash(c.info);
    if (smooth) {
        if (!bilateral_run(&p->bpf, other, image, c.w, c.h))
            memcpy(other, image, c.n * sizeof(*image)); // not of this size: the frame stays as it is
        std::swap(image, other);
    }
    if (fly) {
        const int strength = std::min<int>(p->f_param_flyfilter_th, 31);
        tq_flypix_u16_k3(other, image, static_cast<int>(c.w), static_cast<int>(c.h), 32 - strength);
        std::swap(image, other);
    }
    if (c.n)
        _feature_minamp_filter(p, image, c.n);
    if (filters) {
        tq_fhole_u16_k3(other, image, static_cast<int>(c.w), static_cast<int>(c.h), 0);
        std::swap(image, other);
    }
    zero_amp(image, p->amp_buf.as<uint32_t>(), c.n);
    return static_cast<int>(2 * c.n);
}

static int _decode_gray(const decode_t &c)
{
    epc_priv_t *p = c.p;
    DrvLock lock(p->decode_lock);
    if (p->amp_buf.data && p->amp_buf.size == c.n * sizeof(uint32_t) && p->info_hash == frame_hash(c.info)) {
        LOG_AS(0, "TRC", "epc_frame_decode", "[%s]use confid hash to calc gray ...\n");
        amp_to_gray(c.dst, p->amp_buf.as<uint32_t>(), c.n & ~size_t{3});
        return static_cast<int>(2 * c.n);
    }
    const bool merge = _merges(p);
    if (merge && !p->work.need(c.n * 8))
        return _malloc_failed();
    const epc_frame_t frame = {
        c.raw, c.w, c.h, c.mode, c.sort && !merge, merge ? p->work.as<uint16_t>() : c.dst, nullptr};
    if (!epc_calc_gray(frame))
        memset(frame.dist, 0, c.n * sizeof(*frame.dist));
    if (merge) {
        epc_hdr_merge_gray(frame.dist, c.w, c.h);
        _sort_or_copy(c, c.dst, frame.dist);
    }
    return static_cast<int>(2 * c.n);
}

int epc_frame_decode(tqcam_drv_t *drv, void *dst, uint32_t dst_size, int kind, const void *raw,
                     uint32_t raw_len, const tqcam_frame_info_t *info)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p || !dst || !raw || !info)
        return -1;
    decode_t c = {};
    c.p = p;
    c.raw = static_cast<const uint16_t *>(raw);
    c.bytes = std::min(info->frame_size, raw_len);
    c.info = info;
    c.w = info->width;
    c.h = info->height;
    c.n = size_t{c.w} * c.h;
    c.sort = p->chip_variant != EPC_VARIANT_160X60;
    c.dst = static_cast<uint16_t *>(dst);
    work_buf_t aligned;
    if (reinterpret_cast<uintptr_t>(raw) % sizeof(uint16_t) != 0) {
        if (!aligned.need(c.bytes))
            return _malloc_failed();
        memcpy(aligned.data, raw, c.bytes);
        c.raw = aligned.as<uint16_t>();
    }

    if (p->f_en_auto_intg && p->auto_intg_ratio && !p->hdr_en)
        _feature_auto_intg(p, c.raw, c.bytes);
    if (!_mode_of(p, info, kind, &c.mode))
        return -1;
    if (!_size_ok(c, dst_size)) {
        p->frame_ok = 0;
        return -1;
    }
    if (p->f_en_sync_check && !sync_is_good(c.raw, c.bytes, c.n)) {
        p->frame_ok = 0;
        if (sync_correct(p->dev, p->sync_delay))
            return -1;
    }
    switch (kind) {
    case DRV_KIND_RAW:
    case DRV_KIND_DIST:
        return _decode_dist(c, kind);
    case DRV_KIND_GRAY:
        return _decode_gray(c);
    default:
        p->frame_ok = 0;
        return -1;
    }
}
