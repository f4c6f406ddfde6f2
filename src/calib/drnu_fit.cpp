#include "calib/drnu_fit.h"

#include <cstring>

#include "simd/dispatch.h"
#include "tq_math.h"

void drnu_fit_tile_plain(const drnu_fit_t *fit, size_t first, int count, float *work, float *slope,
                         float *offset, float *r2)
{
    // Pixel after pixel: its samples in work, its true distances behind them.
    float *x = work, *y = work + fit->n;
    for (int i = 0; i < count; i++) {
        const uint8_t *src = fit->images + 2 * (first + static_cast<size_t>(i));
        for (int k = 0; k < fit->n; k++, src += fit->stride) {
            uint16_t raw;
            std::memcpy(&raw, src, sizeof(raw));
            x[k] = raw;
            // One turn is added to a phase that fell behind its predecessor, which may be raised itself.
            if (k > 0 && k != fit->unwrap_skip && x[k] < x[k - 1])
                x[k] += 65536.0f;
            y[k] = fit->y_per_pixel ? fit->y[static_cast<size_t>(k) * DRNU_TILE + i] : fit->y[k];
        }
        for (int k = 0; k < fit->n; k++)
            x[k] = x[k] * (1.0f / 32768) * fit->range;
        tq_math_linear_LSR_f32(x, y, fit->n, &slope[i], &offset[i], &r2[i]);
    }
}

void drnu_fit_tile(const drnu_fit_t *fit, size_t first, int count, float *work, float *slope, float *offset,
                   float *r2)
{
    (simd_enabled() ? drnu_fit_tile_simd : drnu_fit_tile_plain)(fit, first, count, work, slope, offset, r2);
}
