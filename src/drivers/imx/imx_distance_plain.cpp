#include <cmath>

#include "drivers/common/phase.h"
#include "drivers/imx/imx_kernels.h"

// The remainder keeps its sign and is then made positive: a phase below 0 is one of the turn before.
static uint16_t _to_mm(int32_t ph, const imx_map_t &map)
{
    int64_t r = int64_t{ph} * map.sys_k / PHASE_TURN + map.sys_o;
    const int64_t b = r < 0 ? PHASE_TURN - 1 : 0;
    r = ((r + b) & (PHASE_TURN - 1)) - b;
    if (r < 0)
        r += PHASE_TURN;
    return static_cast<uint16_t>(r * map.dm / PHASE_TURN);
}

static int32_t _correct(int32_t ph, size_t k, const imx_map_t &map, const imx_line_t &line)
{
    const float dm = static_cast<float>(map.dm);
    const float p = static_cast<float>(ph & (PHASE_TURN - 1)) - line.tc;
    float d = p * (dm / 32768.0f);
    if (line.slopes)
        d = d * line.slopes[k] + line.offsets[k];
    else
        d = d * line.slope + line.offset;
    d = periodic_correct(d, line.periodic);
    return to_i32(std::round(d * (32768.0f / dm)));
}

void imx_dist_plain(uint16_t *dist, uint32_t *amp, const int16_t *i, const int16_t *q, size_t n,
                    const imx_map_t &map, const imx_line_t &line)
{
    for (size_t k = 0; k < n; k++) {
        int32_t ph = phase_angle(i[k], q[k]) + PHASE_HALF;
        if (line.on)
            ph = _correct(ph, k, map, line);
        dist[k] = _to_mm(ph, map);
        amp[k] = squared_amp(i[k], q[k]);
    }
}

void imx_amp_plain(uint32_t *amp, const int16_t *i, const int16_t *q, size_t n)
{
    for (size_t k = 0; k < n; k++)
        amp[k] = squared_amp(i[k], q[k]);
}

void imx_unwrap_plain(uint16_t *dist, uint32_t *amp, const uint16_t *d_hi, const uint32_t *a_hi,
                      const uint16_t *d_lo, const uint32_t *a_lo, size_t n, int32_t dmax_hi)
{
    const int32_t half = dmax_hi / 2;
    for (size_t k = 0; k < n; k++) {
        const int32_t lo = d_lo[k];
        int32_t hi = d_hi[k];
        for (int period = 0; period < 2; period++)
            if (lo > hi + half)
                hi += dmax_hi;
        const bool fine = a_hi[k] > uint32_t{IMX_WEAK} && lo <= hi + half;
        dist[k] = static_cast<uint16_t>(fine ? hi : lo);
        amp[k] = fine ? a_hi[k] : a_lo[k];
    }
}
