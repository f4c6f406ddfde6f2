// The arctangent and the sine of the distance calculation, which run for every pixel, as tables.
#pragma once

#include <array>
#include <cstdint>

constexpr int ARCTAN2_LUT_NUM = 4096;
constexpr int SIN_LUT_NUM = 8192;

// Entry i is the arctangent of i / 4095, rounded, where 32768 is a full turn: 0 to 4096.
extern const std::array<uint16_t, ARCTAN2_LUT_NUM> g_atan2_LUT;

// Entry i is sin(2 pi i / 8192) with six decimals, which belong to the values: calibrations were made with
// them.
extern const std::array<float, SIN_LUT_NUM> g_sin_LUT;
