#include "drivers/common/fast_sqrt.h"
#include "drivers/epc/epc_samples.h"

void epc_gray_diff_row_plain(uint16_t *gray, const uint16_t *const p[4], size_t n)
{
    for (size_t x = 0; x < n; x++) {
        const int32_t p0 = p[0][x] & 4095, p1 = p[1][x] & 4095, p2 = p[2][x] & 4095, p3 = p[3][x] & 4095;
        const bool valid = epc_in_scale(p0) && epc_in_scale(p1) && epc_in_scale(p2) && epc_in_scale(p3);
        gray[x] = valid ? fastsqrt(squared_amp(p2 - p0, p3 - p1)) : 0;
    }
}

void epc_gray_level_row_plain(uint16_t *gray, const uint16_t *p0, const uint16_t *p1, size_t n)
{
    for (size_t x = 0; x < n; x++) {
        const int32_t a = p0[x] & 4095, b = p1[x] & 4095;
        gray[x] = epc_in_scale(a) && epc_in_scale(b) ? fastsqrt(squared_amp(2048 - a, 2048 - b)) : 0;
    }
}
