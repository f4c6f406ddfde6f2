#include "tq_depth.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "image/depth_kernels.h"
#include "log/log.h"
#include "simd/dispatch.h"
#include "simd/flush_subnormals.h"

// Zeroed, and on a cache line.
static float *_alloc(uint64_t n)
{
    const size_t bytes = (n * sizeof(float) + 63) / 64 * 64;
    void *p = aligned_alloc(64, bytes);
    return (float *)(p ? memset(p, 0, bytes) : nullptr);
}

// Six line buffers, or what the vector form keeps of a block: of 16 rows the weights, both sums and the
// pixels, of 32 columns the weights and both sums.
static uint64_t _line_room(uint64_t w, uint64_t h)
{
    const uint64_t rows = (w + 15) / 16 * 16 * kBpf2dRows * 7 / 2;
    const uint64_t columns = h * kBpf2dCols * 3;
    return std::max({6 * 8 * std::max(w, h), rows, columns});
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
        const uint64_t plane = ((uint64_t)w + kBpf2dCols - 1) / kBpf2dCols * kBpf2dCols * h;
        f->sum = _alloc(plane);
        f->norm = _alloc(plane);
        f->line[0] = _alloc(_line_room(w, h));
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
    if (simd_enabled())
        bpf2d_iir_simd(f, dst, src);
    else
        bpf2d_iir_plain(f, dst, src);
}
