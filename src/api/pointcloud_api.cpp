#include "api/pointcloud_api.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "tq_filter.h"
#include "tq_pcl.h"

#include "api/device.h"
#include "drivers/driver.h"
#include "log/log.h"

namespace {

using words_t = std::unique_ptr<uint32_t, decltype(&free)>;

words_t _pcl_words(uint64_t n)
{
    return {(uint32_t *)calloc(n, sizeof(uint32_t)), free};
}

// The driver's lens at the image's size, cut to f32.
bool _pcl_lens(tqcam_drv_t *drv, uint32_t w, uint32_t h, float lens[4])
{
    tqcam_lens_param_t p = {};
    if (!drv || !drv->ops->lens_param_get || !drv->ops->lens_param_get(drv, &p, (int)w, (int)h, 0))
        return false;
    lens[0] = (float)p.cx;
    lens[1] = (float)p.cy;
    lens[2] = (float)p.fx;
    lens[3] = (float)p.fy;
    return true;
}

// The gradient table of the lens in use at the image's size: the record's own where the sizes agree, else
// sampled into made. Null when there is none that fits. The result may be unaligned.
const float *_pcl_table(tqcam_drv_t *drv, uint32_t w, uint32_t h, words_t *made)
{
    const tq_lens_bin_t *rec = drv && drv->ops->lens_rec_get ? drv->ops->lens_rec_get(drv) : nullptr;
    if (!rec)
        return nullptr;
    const uint32_t rw = rec->img_w, rh = rec->img_h;
    if (rw < w || rh < h || rw % w != 0 || rh % h != 0 || rec->n_grad < (uint64_t)rw * rh)
        return nullptr;
    const uint8_t *grad = tq_lens_bin_grad(rec);
    if (rw == w && rh == h)
        return (const float *)grad;

    *made = _pcl_words((uint64_t)w * h);
    if (!*made) {
        LOG_ERROR("[%s]malloc failed\n");
        return nullptr;
    }
    uint32_t *out = made->get();
    const size_t sx = rw / w, sy = rh / h;
    for (size_t y = 0; y < h; y++)
        for (size_t x = 0; x < w; x++)
            memcpy(out++, grad + 4 * (y * sy * rw + x * sx), 4);
    return (const float *)made->get();
}

// The common part of the three public forms.
int _pcl_public(const char *name, tqcam_dev_t *dev, float *pcl, uint32_t pcl_len, const float *dist,
                uint32_t dist_len, const void *extra, uint32_t w, uint32_t h, const float *lens)
{
    if (!dist || dist_len < (uint64_t)w * h) {
        LOG_AS(6, "ERR", name, "[%s]wrong dist_len: %u (wxh=%ux%u)\n", dist_len, w, h);
        return 0;
    }
    return (int)_tqcam_frame_get_pcl_ex(dev, pcl, pcl_len, dist, true, extra, false,
                                        dev->priv->lens_cfg.d_is_z != 0, w, h, lens);
}

// One colour word for each pixel, R in the low byte, as the numeric value that viewers expect in the fourth
// place of a point.
words_t _pcl_colours(const char *name, const float *src, uint64_t n, const tqcam_cmap_opt_t *options,
                     float range_min, float range_max)
{
    words_t words = n <= INT_MAX / 4 ? _pcl_words(n) : words_t(nullptr, free);
    if (!words) {
        LOG_AS(6, "ERR", name, "[%s]malloc failed\n");
        return words;
    }
    tqcam_cmap_dist_f32_to_RGB((uint8_t *)words.get(), (int)(n * 4), src, (int)n, TQCAM_PIX_RGB0, options,
                               range_min, range_max);
    tq_conv_u32_f32((float *)words.get(), words.get(), (int)n, 1.0f);
    return words;
}

} // namespace

uint32_t _tqcam_frame_get_pcl_ex(tqcam_dev_t *dev, float *pcl, uint32_t pcl_len, const void *dist,
                                 bool dist_is_f32, const void *extra, bool z_only, bool d_is_z, uint32_t w,
                                 uint32_t h, const float *lens)
{
    if (!dev || !pcl || !dist)
        return 0;
    const uint32_t values = z_only ? 1 : extra ? 4 : 3;
    const uint64_t n = (uint64_t)w * h;
    // The first test keeps the others from wrapping, the last keeps both sizes within int.
    if (n > pcl_len || n * values > pcl_len || w > INT_MAX || h > INT_MAX) {
        LOG_ERROR("[%s]Pcl output buffer too small: only %u floats, needs %u x %u floats\n", pcl_len,
                  (unsigned)n, values);
        return 0;
    }
    if (n == 0)
        return 0;

    const DrvUse drv(dev->priv);
    float own[4];
    if (!lens) {
        if (!_pcl_lens(drv, w, h, own)) {
            LOG_ERROR("[%s]Cannot generate PCL: no lens parameter in driver.\n");
            return 0;
        }
        lens = own;
    }
    words_t made(nullptr, free);
    const float *table = dev->priv->lens_cfg.en_3d ? _pcl_table(drv, w, h, &made) : nullptr;

    if (w % 4 != 0) // the last columns are left out
        memset(pcl, 0, n * values * sizeof(float));
    if (dist_is_f32)
        tq_pcl_get_xyzd_f32(pcl, (const float *)dist, table, (int)w, (int)h, lens, extra, z_only, d_is_z);
    else
        tq_pcl_get_xyzd_u16(pcl, (const uint16_t *)dist, table, (int)w, (int)h, lens, extra, z_only, d_is_z);
    return (uint32_t)n;
}

int tqcam_frame_get_pcl(tqcam_dev_t *dev, float *pcl, uint32_t pcl_len, const float *dist, uint32_t dist_len,
                        uint32_t w, uint32_t h, const float *lens)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return 0;
    return _pcl_public(__func__, dev, pcl, pcl_len, dist, dist_len, nullptr, w, h, lens);
}

int tqcam_frame_get_pcl_xyzd(tqcam_dev_t *dev, float *pcl, uint32_t pcl_len, const float *dist,
                             uint32_t dist_len, uint32_t w, uint32_t h, bool pseudo_color, const float *lens,
                             float range_min, float range_max)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return 0;
    const uint64_t n = (uint64_t)w * h;
    words_t colours(nullptr, free);
    if (pseudo_color && dist && n <= dist_len && n > 0) {
        colours = _pcl_colours(__func__, dist, n, nullptr, range_min, range_max);
        if (!colours)
            return 0;
    }
    const void *extra = colours ? (const void *)colours.get() : dist;
    return _pcl_public(__func__, dev, pcl, pcl_len, dist, dist_len, extra, w, h, lens);
}

int tqcam_frame_get_pcl_xyzi(tqcam_dev_t *dev, float *pcl, uint32_t pcl_len, const float *dist,
                             uint32_t dist_len, const float *gray, uint32_t gray_len, uint32_t w, uint32_t h,
                             int ir_balance, const float *lens)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return 0;
    if (ir_balance < -1024 || ir_balance > 1024) {
        LOG_ERROR("[%s] wrong ir_balance value: %d\n", ir_balance);
        return 0;
    }
    const uint64_t n = (uint64_t)w * h;
    if (!gray || gray_len < n || n == 0) {
        LOG_ERROR("[%s]wrong gray_len: %u (wxh=%ux%u)\n", gray_len, w, h);
        return 0;
    }
    const tqcam_cmap_opt_t options = {35, 0}; // black to white
    const words_t colours = _pcl_colours(__func__, gray, n, &options, 0.0f, (float)((1044 - ir_balance) * 2));
    if (!colours)
        return 0;
    return _pcl_public(__func__, dev, pcl, pcl_len, dist, dist_len, colours.get(), w, h, lens);
}
