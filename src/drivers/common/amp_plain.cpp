#include "drivers/common/amp_kernels.h"

#include "drivers/common/fast_sqrt.h"

void min_amp_plain(uint16_t *dist, const uint32_t *amp, size_t n, const min_amp_t &limits)
{
    for (size_t i = 0; i < n; i++)
        if (amp[i] < limits.lo || amp[i] > limits.hi)
            dist[i] = 0;
}

void min_amp_hyst_plain(uint16_t *dist, uint8_t *state, const uint32_t *amp, size_t n,
                        const min_amp_t &limits)
{
    for (size_t i = 0; i < n; i++) {
        const bool good = amp[i] >= limits.lo && amp[i] <= limits.hi;
        const bool bad = amp[i] < limits.lo_drop || amp[i] > limits.hi_drop;
        state[i] = good ? 1 : bad ? 0 : state[i];
        dist[i] = state[i] ? dist[i] : 0;
    }
}

void zero_amp_plain(uint16_t *dist, const uint32_t *amp, size_t n)
{
    for (size_t i = 0; i < n; i++)
        dist[i] = amp[i] ? dist[i] : 0;
}

void amp_to_gray_plain(uint16_t *gray, const uint32_t *amp, size_t n)
{
    for (size_t i = 0; i < n; i++)
        gray[i] = fastsqrt(amp[i]);
}
