// The periodic error of a modulation that isn't a pure sine: d + amp * sin(omega * d + pha) + ofs is the
// corrected distance, the sine taken from the table.
#pragma once

#include <cmath>
#include <cstdint>

#include "drivers/common/to_int.h"
#include "math/trig_tables.h"

inline constexpr double PERIODIC_STEPS = 1303.7972938088067; // table entries a radian, 4096 / pi

struct periodic_t {
    float amp, omega, pha, ofs;
};

inline float periodic_correct(float d, const periodic_t &p)
{
    const float t = d * p.omega + p.pha;
    const int64_t index = to_i64(static_cast<double>(std::fabs(t)) * PERIODIC_STEPS + 0.5);
    const float sine = g_sin_LUT[static_cast<uint64_t>(index) % SIN_LUT_NUM];
    return d + (t < 0 ? -sine : sine) * p.amp + p.ofs;
}
