// The square root by which squared amplitudes become gray values: an estimate from the exponent and mantissa
// of a float, up to 6 % off. Gray values are defined by it, so that a better root would be wrong.
#pragma once

#include <bit>
#include <cstdint>

inline uint16_t fastsqrt(uint32_t v)
{
    const int32_t bits = std::bit_cast<int32_t>(static_cast<float>(v));
    return static_cast<uint16_t>(std::bit_cast<float>(((bits - 0x800000) >> 1) + 0x20000000));
}
