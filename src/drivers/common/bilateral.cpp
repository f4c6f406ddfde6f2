#include "drivers/common/bilateral.h"

#include "log/log.h"

void bilateral_make(bilateral_t *b, uint32_t w, uint32_t h, uint16_t range_min, uint16_t range_max,
                    float sigma_spatial, float sigma_range, const char *caller)
{
    DrvLock lock(b->lock);
    tq_bpf2d_iir_uninit(&b->bpf);
    b->sigma_spatial = sigma_spatial;
    b->sigma_range = sigma_range;
    b->range_min = range_min;
    b->range_max = range_max;
    if (!tq_bpf2d_iir_init(&b->bpf, w, h, range_min, range_max, sigma_spatial, sigma_range))
        LOG_AS(6, "ERR", caller, "[%s]tq_bpf2d_iir_init failed\n");
}

void _filter_bpf_reload_parameter(bilateral_t *b, uint32_t w, uint32_t h, bool force)
{
    const float spatial = b->f_param_bpf_sigma_spatial, range = b->f_param_bpf_sigma_range;
    const uint16_t lo = b->f_param_bpf_range_min, hi = b->f_param_bpf_range_max;
    if (!force) {
        DrvLock lock(b->lock);
        if (b->sigma_spatial == spatial && b->sigma_range == range && b->range_min == lo &&
            b->range_max == hi)
            return;
    }
    LOG_DEBUG("[%s]bpf2d_iir reload: %f/%f/%u/%u\n", spatial, range, lo, hi);
    bilateral_make(b, w, h, lo, hi, spatial, range, __func__);
}

bool bilateral_run(bilateral_t *b, uint16_t *dst, const uint16_t *src, uint32_t w, uint32_t h)
{
    DrvLock lock(b->lock);
    tq_bpf2d_iir(&b->bpf, dst, src, w, h); // logs another size and does nothing
    return b->bpf.sum && b->bpf.w == w && b->bpf.h == h;
}

void bilateral_free(bilateral_t *b)
{
    DrvLock lock(b->lock);
    tq_bpf2d_iir_uninit(&b->bpf);
}
