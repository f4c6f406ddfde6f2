// Phase and amplitude of a pixel from its in-phase and quadrature values I and Q.
//
// A phase is an integer in which 32768 is one full turn, and so one unambiguous range of the modulation.
#pragma once

#include <cstdint>

#include "drivers/common/to_int.h"
#include "math/trig_tables.h"

inline constexpr int32_t PHASE_TURN = 32768;
inline constexpr int32_t PHASE_HALF = 16384; // base of most modes: the samples stand half a turn off

// Angle of (I, Q), 0 to one turn: an octant fold and one table entry. Both stay within 16 bits and a sign, so
// that the shifted dividend stays within 32.
inline int32_t phase_angle(int32_t i, int32_t q)
{
    if (q == 0)
        return i < 0 ? PHASE_TURN / 2 : 0;
    int32_t oct = 0;
    if (q < 0) {
        i = -i;
        q = -q;
        oct = PHASE_TURN / 2;
    }
    if (i < 1) {
        const int32_t t = -i;
        i = q;
        q = t;
        oct += PHASE_TURN / 4;
    }
    if (q >= i) {
        const int32_t t = q - i;
        i += q;
        q = t;
        oct += PHASE_TURN / 8;
    }
    return oct + g_atan2_LUT[static_cast<uint32_t>((q << 12) / i)];
}

// Phase of a pixel, 0 to 32767.
inline int32_t phase_of(int32_t i, int32_t q, int32_t base)
{
    return (phase_angle(i, q) + base) & (PHASE_TURN - 1);
}

// Squared amplitude, a quarter of I^2 + Q^2; the sum wraps at 32 bits.
inline uint32_t squared_amp(int32_t i, int32_t q)
{
    return (static_cast<uint32_t>(i) * static_cast<uint32_t>(i) +
            static_cast<uint32_t>(q) * static_cast<uint32_t>(q)) >>
           2;
}

// The unambiguous range in whole millimetres; 0 for a frequency of 0 and where it doesn't fit 31 bits.
inline int32_t range_of(uint32_t mod_freq)
{
    const float mm = 1.4989622e11f / static_cast<float>(mod_freq);
    return mod_freq && mm < 2147483648.0f ? to_i32(mm) : 0;
}
