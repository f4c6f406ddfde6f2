// Decoding: a raw frame becomes an image through the driver, on the caller's thread.
#include <cstdint>

#include "api/device.h"
#include "api/recording.h"
#include "drivers/driver.h"
#include "log/log.h"
#include "tq_filter.h"

namespace {
constexpr float METRES_PER_MM = 0.001f;

// A raw frame, and the image that is wanted of it.
struct decode_t {
    int kind;
    const void *src;
    uint32_t src_len; // bytes
    tqcam_frame_info_t info;
};

int _tqcam_frame_get_u16(tqcam_dev_t *dev, void *dst, uint32_t dst_len, const decode_t &job)
{
    tqcam_dev_priv_t *priv = dev->priv;
    const tqcam_frame_info_t &info = job.info;
    const DrvUse drv(priv);
    if (!drv || !dst || !job.src) {
        LOG_DEBUG("[%s]Wrong params\n");
        return 0;
    }
    if (info.frame_size > job.src_len) {
        LOG_ERROR("[%s]raw frame length too small: datalen=%d, frlen=%d\n", static_cast<int>(job.src_len),
                  static_cast<int>(info.frame_size));
        return 0;
    }
    const uint64_t room = static_cast<uint64_t>(dst_len) * sizeof(uint16_t);
    const uint32_t dst_size = room > INT32_MAX ? INT32_MAX - 1u : static_cast<uint32_t>(room);
    const int bytes = drv->ops->frame_decode(drv, dst, dst_size, job.kind, job.src, job.src_len, &info);
    if (bytes < 0)
        LOG_ERROR("[%s]raw frame (%u x %u, fmt=0x%x) decode to %d failed: %d\n", info.width, info.height,
                  info.frame_format, job.kind, bytes);
    if (bytes <= 0)
        return 0;
    rec_save_image(dev, job.kind, dst, static_cast<uint32_t>(bytes));
    return bytes / static_cast<int>(sizeof(uint16_t));
}

bool _has_room(const tqcam_frame_info_t &info, uint32_t dst_len, const char *caller)
{
    if (static_cast<uint64_t>(info.width) * info.height <= dst_len)
        return true;
    LOG_AS(6, "ERR", caller, "[%s]wrong dst_len: %d (wxh=%dx%d)\n", static_cast<int>(dst_len),
           static_cast<int>(info.width), static_cast<int>(info.height));
    return false;
}

decode_t _job(tqcam_dev_t *dev, int kind, const void *src, uint32_t src_len, const tqcam_frame_info_t *info)
{
    return {kind, src, src_len, info ? *info : dev_last_info(dev->priv)};
}

int _frame_u16(tqcam_dev_t *dev, uint16_t *dst, uint32_t dst_len, int kind, const void *src, uint32_t src_len,
               const tqcam_frame_info_t *info, const char *caller)
{
    ApiGuard guard(dev, caller);
    if (!guard)
        return -1;
    const decode_t job = _job(dev, kind, src, src_len, info);
    return _has_room(job.info, dst_len, caller) ? _tqcam_frame_get_u16(dev, dst, dst_len, job) : 0;
}

// Decodes into the upper half of the caller's array and widens from its front: a value is read before its
// place is written, and no second image is needed.
int _frame_f32(tqcam_dev_t *dev, float *dst, uint32_t dst_len, int kind, float scale, const void *src,
               uint32_t src_len, const tqcam_frame_info_t *info, const char *caller)
{
    ApiGuard guard(dev, caller);
    if (!guard)
        return -1;
    const decode_t job = _job(dev, kind, src, src_len, info);
    if (!_has_room(job.info, dst_len, caller))
        return 0;
    float *upper = dst ? dst + dst_len / 2 : nullptr;
    const int n = _tqcam_frame_get_u16(dev, upper, dst_len, job);
    tq_conv_u16_f32(dst, reinterpret_cast<const uint16_t *>(upper), n, scale);
    return n;
}
} // namespace

int tqcam_frame_get_dist_raw(tqcam_dev_t *dev, uint16_t *dst, uint32_t dst_len, const void *src,
                             uint32_t src_len, const tqcam_frame_info_t *info)
{
    return _frame_u16(dev, dst, dst_len, DRV_KIND_RAW, src, src_len, info, __func__);
}

int tqcam_frame_get_dist_u16(tqcam_dev_t *dev, uint16_t *dst, uint32_t dst_len, const void *src,
                             uint32_t src_len, const tqcam_frame_info_t *info)
{
    return _frame_u16(dev, dst, dst_len, DRV_KIND_DIST, src, src_len, info, __func__);
}

int tqcam_frame_get_gray_u16(tqcam_dev_t *dev, uint16_t *dst, uint32_t dst_len, const void *src,
                             uint32_t src_len, const tqcam_frame_info_t *info)
{
    return _frame_u16(dev, dst, dst_len, DRV_KIND_GRAY, src, src_len, info, __func__);
}

int tqcam_frame_get_dist_f32(tqcam_dev_t *dev, float *dst, uint32_t dst_len, const void *src,
                             uint32_t src_len, const tqcam_frame_info_t *info)
{
    return _frame_f32(dev, dst, dst_len, DRV_KIND_DIST, METRES_PER_MM, src, src_len, info, __func__);
}

int tqcam_frame_get_gray_f32(tqcam_dev_t *dev, float *dst, uint32_t dst_len, const void *src,
                             uint32_t src_len, const tqcam_frame_info_t *info)
{
    return _frame_f32(dev, dst, dst_len, DRV_KIND_GRAY, 1.0f, src, src_len, info, __func__);
}

int tqcam_frame_get_distance(tqcam_dev_t *dev, float *dst, uint32_t dst_len, const void *src,
                             uint32_t src_len, const tqcam_frame_info_t *info)
{
    return tqcam_frame_get_dist_f32(dev, dst, dst_len, src, src_len, info);
}

int tqcam_frame_get_gray(tqcam_dev_t *dev, float *dst, uint32_t dst_len, const void *src, uint32_t src_len,
                         const tqcam_frame_info_t *info)
{
    return tqcam_frame_get_gray_f32(dev, dst, dst_len, src, src_len, info);
}
