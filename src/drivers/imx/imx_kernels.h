// The per-pixel work of the SONY family. Each kernel takes arrays and a small record of parameters, never the
// driver's record. The plain form defines the result.
//
// A sub-frame brings I or Q of every pixel, or one of four samples whose differences are I and Q. Values come
// packed, four signed 12-bit values in six bytes, or in 16-bit words with their bytes swapped.
#pragma once

#include <cstddef>
#include <cstdint>

#include "drivers/common/periodic.h"

// How a phase becomes millimetres.
struct imx_map_t {
    int32_t sys_k; // scale, 32768 is 1
    int32_t sys_o; // offset in phase
    int32_t dm;    // range in mm; above 0
};

// A row's calibration: one line for all pixels, or one for each, then the periodic error.
struct imx_line_t {
    bool on;
    float tc;                      // temperature correction, phase
    float slope, offset;           // of all pixels, mm
    const float *slopes, *offsets; // of each pixel, or nullptr
    periodic_t periodic;
};

// Unpacks n values (a multiple of 4).
void imx_unpack_plain(int16_t *out, const uint8_t *packed, size_t n);

// Decodes n words. bad[i] becomes 1 where a word is marked as unusable, and stays what it was elsewhere.
void imx_words_plain(int16_t *out, uint8_t *bad, const uint8_t *words, size_t n);

// Distance and squared amplitude of n pixels from I and Q, each of 13 bits at most. line's planes begin at
// the first of these pixels.
void imx_dist_plain(uint16_t *dist, uint32_t *amp, const int16_t *i, const int16_t *q, size_t n,
                    const imx_map_t &map, const imx_line_t &line);

// Squared amplitude of n pixels.
void imx_amp_plain(uint32_t *amp, const int16_t *i, const int16_t *q, size_t n);

// Up to this squared amplitude the fine frequency's distance isn't taken.
inline constexpr int32_t IMX_WEAK = 100;

// Two frequencies: the fine distance is moved by up to two of its ranges toward the coarse one; where it is
// weak or doesn't come near, the coarse one stands. Results go to dist and amp, which may be those of the
// fine pair.
void imx_unwrap_plain(uint16_t *dist, uint32_t *amp, const uint16_t *d_hi, const uint32_t *a_hi,
                      const uint16_t *d_lo, const uint32_t *a_lo, size_t n, int32_t dmax_hi);

// The forms that run: on vectors where the processor has them, with the same result.
void imx_unpack(int16_t *out, const uint8_t *packed, size_t n);
void imx_dist(uint16_t *dist, uint32_t *amp, const int16_t *i, const int16_t *q, size_t n,
              const imx_map_t &map, const imx_line_t &line);
void imx_amp(uint32_t *amp, const int16_t *i, const int16_t *q, size_t n);
void imx_unwrap(uint16_t *dist, uint32_t *amp, const uint16_t *d_hi, const uint32_t *a_hi,
                const uint16_t *d_lo, const uint32_t *a_lo, size_t n, int32_t dmax_hi);
