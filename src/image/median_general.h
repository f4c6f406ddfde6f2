#pragma once

#include <cstdint>

// Exact median of kernel x kernel pixels, kernel odd and from 3 to below 2 * w and 2 * h, border repeated.
// False when out of memory.
bool median2d_u16_general(uint16_t *dst, const uint16_t *src, int w, int h, int kernel);
