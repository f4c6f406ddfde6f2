#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "tq_filter.h"
#include "tq_lens.h"
#include "tqcam.h"

#include "api/device.h"
#include "api/pointcloud_api.h"
#include "drivers/driver.h"
#include "log/log.h"

namespace {

enum { LENS_MODE_GRAY = 0, LENS_MODE_DIST = 1, LENS_MODE_DEPTH = 2 };

// The lens description that the camera keeps goes in three parameters.
enum { LENS_PARAM_A = 22, LENS_PARAM_B = 86, LENS_PARAM_C = 87, LENS_DESC_SIZE = 36, LENS_PARAM_LEN = 16 };

template <class T>
bool _undistort(const tq_calib_len_map_t *map, T *dst, uint32_t n, const T *src, int w, int h)
{
    if constexpr (sizeof(T) == sizeof(float))
        return tq_calib_len_undistort_f32(map, dst, (int)n, src, w, h, 0.0f);
    else
        return tq_calib_len_undistort_u16(map, dst, (int)n, src, w, h, 0);
}

template <class T> bool _apply_gray(tqcam_dev_priv_t *priv, T *dst, const T *src, uint32_t n, int w, int h)
{
    if (priv->lens_cfg.en_2d)
        return _undistort(&priv->lens_map, dst, n, src, w, h);
    if (dst != src)
        memmove(dst, src, n * sizeof(T));
    return true;
}

// Radial distance to depth along the axis. A map that doesn't fit says so and leaves the depth as it is.
bool _apply_dist_f32(tqcam_dev_t *dev, float *dst, const void *src, uint32_t n, uint32_t w, uint32_t h,
                     bool is_z, const float *lens)
{
    if (!_tqcam_frame_get_pcl_ex(dev, dst, n, src, true, nullptr, true, is_z, w, h, lens))
        return false;
    if (dev->priv->lens_cfg.en_2d)
        _undistort(&dev->priv->lens_map, dst, n, (const float *)dst, (int)w, (int)h);
    return true;
}

bool _apply_dist_u16(tqcam_dev_t *dev, uint16_t *dst, const void *src, uint32_t n, uint32_t w, uint32_t h,
                     bool is_z, const float *lens)
{
    const std::unique_ptr<float, decltype(&free)> metres((float *)calloc(n, sizeof(float)), free);
    if (!metres) {
        LOG_ERROR("[%s]malloc failed\n");
        return false;
    }
    if (!_tqcam_frame_get_pcl_ex(dev, metres.get(), n, src, false, nullptr, true, is_z, w, h, lens))
        return false;
    tq_conv_f32_u16(dst, metres.get(), (int)n, 1000.0f);
    if (dev->priv->lens_cfg.en_2d)
        _undistort(&dev->priv->lens_map, dst, n, (const uint16_t *)dst, (int)w, (int)h);
    return true;
}

int _dist_mode(const tqcam_dev_t *dev)
{
    return dev->priv->lens_cfg.d_is_z ? LENS_MODE_DEPTH : LENS_MODE_DIST;
}

} // namespace

bool tqcam_lens_param_filename(tqcam_dev_t *dev, char *buf, int len, bool is_bin, bool with_serial)
{
    if (!dev || !dev->priv || !buf || len < 1) {
        LOG_ERROR("[%s] Device handler Is NULL!\r\n");
        return false;
    }
    const char *ext = is_bin ? "bin" : "txt";
    if (with_serial)
        snprintf(buf, (size_t)len, "%slens_param_%u.%s", tqcam_path_get(), tq_priv_get_param_id(dev), ext);
    else
        snprintf(buf, (size_t)len, "%slens_param.%s", tqcam_path_get(), ext);
    return true;
}

bool tqcam_lens_param_get(tqcam_dev_t *dev, tqcam_lens_info_t *out)
{
    if (!out) {
        LOG_ERROR("[%s] Device handler Is NULL!\r\n");
        return false;
    }
    *out = {};
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    tqcam_dev_priv_t *priv = dev->priv;
    const DrvUse drv(priv);
    tqcam_lens_param_t p = {};
    if (!drv || !drv->ops->lens_param_get || !drv->ops->lens_param_get(drv, &p, priv->cur_w, priv->cur_h, 0))
        return false;
    out->cx = (float)p.cx;
    out->cy = (float)p.cy;
    out->fx = (float)p.fx;
    out->fy = (float)p.fy;
    for (int i = 0; i < TQ_LENS_DCOEF_NUM; i++)
        out->dcoef[i] = (float)p.dcoef[i];
    out->n_dcoef = (uint8_t)std::clamp<int32_t>(p.n_dcoef, 0, TQ_LENS_DCOEF_NUM);
    return true;
}

bool tqcam_lens_param_set(tqcam_dev_t *dev, const void *lens)
{
    if (!lens) {
        LOG_ERROR("[%s] Device handler Is NULL!\r\n");
        return false;
    }
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    tqcam_param_item_t items[3] = {};
    const uint32_t ids[3] = {LENS_PARAM_A, LENS_PARAM_B, LENS_PARAM_C};
    for (int i = 0; i < 3; i++) {
        items[i].param_id = ids[i];
        items[i].param_len = LENS_PARAM_LEN;
        const int at = i * LENS_PARAM_LEN;
        memcpy(items[i].value, (const uint8_t *)lens + at,
               std::min<int>(LENS_PARAM_LEN, LENS_DESC_SIZE - at));
    }
    return tqcam_param_batch_set(dev, items, 3);
}

void tqcam_lens_calib_config_set(tqcam_dev_t *dev, const tqcam_lens_calib_cfg_t *cfg)
{
    DevPeek peek(dev);
    if (!peek.priv || !cfg)
        return;
    LOG_DEBUG("[%s]lens calib cfg: 2d_en=%d, 3d_en=%d, d_is_z=%d\n", cfg->en_2d, cfg->en_3d, cfg->d_is_z);
    peek.priv->lens_cfg = *cfg;
}

tqcam_lens_calib_cfg_t *tqcam_lens_calib_config_get(tqcam_dev_t *dev)
{
    DevPeek peek(dev);
    return peek.priv && peek.priv->opened ? &peek.priv->lens_cfg : nullptr;
}

bool tqcam_lens_calib_apply(tqcam_dev_t *dev, void *dst, int dst_len, const void *src, int src_len,
                            bool is_f32, int mode, const tqcam_frame_info_t *finfo, const float *lens)
{
    if (!dev || !dst || !src || !finfo || mode < LENS_MODE_GRAY || mode > LENS_MODE_DEPTH) {
        LOG_ERROR("[%s]lens_calib_apply argument error\n");
        return false;
    }
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;

    const uint64_t pixels = (uint64_t)finfo->width * finfo->height;
    if (dst_len < 0 || src_len < 0 || pixels > (uint64_t)dst_len || pixels > (uint64_t)src_len) {
        LOG_ERROR("[%s]lens_calib_apply dst_len or src_len too small: dst_len=%d, src_len=%d\n", dst_len,
                  src_len);
        return false;
    }
    const uint32_t n = (uint32_t)pixels;
    const uint32_t w = finfo->width, h = finfo->height;
    if (n == 0)
        return true;
    if (mode == LENS_MODE_GRAY)
        return is_f32 ? _apply_gray(dev->priv, (float *)dst, (const float *)src, n, (int)w, (int)h)
                      : _apply_gray(dev->priv, (uint16_t *)dst, (const uint16_t *)src, n, (int)w, (int)h);
    const bool is_z = mode == LENS_MODE_DEPTH;
    return is_f32 ? _apply_dist_f32(dev, (float *)dst, src, n, w, h, is_z, lens)
                  : _apply_dist_u16(dev, (uint16_t *)dst, src, n, w, h, is_z, lens);
}

bool tqcam_lens_calib_apply_dist_f32(tqcam_dev_t *dev, void *dst, int dst_len, const void *src, int src_len,
                                     const tqcam_frame_info_t *finfo, const float *lens)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    return tqcam_lens_calib_apply(dev, dst, dst_len, src, src_len, true, _dist_mode(dev), finfo, lens);
}

bool tqcam_lens_calib_apply_dist_u16(tqcam_dev_t *dev, void *dst, int dst_len, const void *src, int src_len,
                                     const tqcam_frame_info_t *finfo, const float *lens)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    return tqcam_lens_calib_apply(dev, dst, dst_len, src, src_len, false, _dist_mode(dev), finfo, lens);
}

bool tqcam_lens_calib_apply_gray_f32(tqcam_dev_t *dev, void *dst, int dst_len, const void *src, int src_len,
                                     const tqcam_frame_info_t *finfo, const float *lens)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    return tqcam_lens_calib_apply(dev, dst, dst_len, src, src_len, true, LENS_MODE_GRAY, finfo, lens);
}

bool tqcam_lens_calib_apply_gray_u16(tqcam_dev_t *dev, void *dst, int dst_len, const void *src, int src_len,
                                     const tqcam_frame_info_t *finfo, const float *lens)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    return tqcam_lens_calib_apply(dev, dst, dst_len, src, src_len, false, LENS_MODE_GRAY, finfo, lens);
}
