#include "tq_depth.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "image/depth_kernels.h"
#include "log/log.h"
#include "simd/flush_subnormals.h"

static float *_alloc(uint64_t n)
{
    return (float *)calloc(n, sizeof(float));
}

static void _make_tables(tq_bpf2d_iir_t *f)
{
    const uint32_t n = f->range_n;
    const float q = 1.0f / ((float)n * f->sigma_range);
    for (uint32_t i = 0; i + 1 < n; i++)
        f->range_tbl[i] = (float)std::exp(-(double)i * (double)q);
    f->range_tbl[n - 1] = 0.0f;
    for (uint32_t i = 0; i < n; i++) {
        f->range_tbl[n + i] = f->alpha_x * f->range_tbl[i];
        f->range_tbl[2 * n + i] = f->alpha_y * f->range_tbl[i];
    }
}

bool tq_bpf2d_iir_init(tq_bpf2d_iir_t *f, uint32_t w, uint32_t h, uint16_t vmin, uint16_t vmax,
                       float sigma_spatial, float sigma_range)
{
    if (!f)
        return false;
    memset(f, 0, sizeof *f);
    if (w < 1 || h < 1 || w > 40960 || h > 40960) {
        LOG_ERROR("[%s]wrong image width or height: w=%u, h=%u\n", w, h);
        return false;
    }
    // With the bounds swapped the table would wrap round to almost 2^32 entries.
    if (vmin <= vmax) {
        f->range_n = (uint32_t)(vmax - vmin) + 1;
        f->range_tbl = _alloc(3 * (uint64_t)f->range_n);
        f->sum = _alloc((uint64_t)w * h);
        f->norm = _alloc((uint64_t)w * h);
        f->line[0] = _alloc(6 * 8 * (uint64_t)std::max(w, h));
    }
    if (!f->range_tbl || !f->sum || !f->norm || !f->line[0]) {
        LOG_ERROR("[%s]cannot malloc buffers for BPF\n");
        tq_bpf2d_iir_uninit(f);
        return false;
    }
    for (int i = 1; i < 6; i++)
        f->line[i] = f->line[i - 1] + 8 * (size_t)std::max(w, h);
    f->w = w;
    f->h = h;
    f->sigma_spatial = sigma_spatial;
    f->sigma_range = sigma_range;
    f->lo = vmin;
    f->hi = std::min(vmax, (uint16_t)std::min(vmin + 4095, 65535));
    f->alpha_x = (float)std::exp(-std::sqrt(2.0) / (double)((float)w * sigma_spatial));
    f->alpha_y = (float)std::exp(-std::sqrt(2.0) / (double)((float)h * sigma_spatial));
    _make_tables(f);
    return true;
}

void tq_bpf2d_iir_uninit(tq_bpf2d_iir_t *f)
{
    if (!f)
        return;
    free(f->range_tbl);
    free(f->sum);
    free(f->norm);
    free(f->line[0]);
    memset(f, 0, sizeof *f);
}

void tq_bpf2d_iir(tq_bpf2d_iir_t *f, uint16_t *dst, const uint16_t *src, uint32_t w, uint32_t h)
{
    if (!f || !dst || !src || w != f->w || h != f->h || w == 0 || h == 0) {
        LOG_ERROR("[%s]wrong parameters: init=%ux%u, cur=%ux%u\n", f ? f->w : 0, f ? f->h : 0, w, h);
        return;
    }
    f->dst = dst;
    const FlushSubnormals flush;
    bpf2d_iir_plain(f, dst, src);
}
