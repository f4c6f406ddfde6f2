// What squared amplitudes decide, pixel by pixel: which distances stay, and gray. The plain form defines the
// result of each.
#pragma once

#include <cstddef>
#include <cstdint>

// A pixel is good while its squared amplitude lies in lo to hi, and bad below lo_drop or above hi_drop; in
// between, with hysteresis, it stays what it was.
struct min_amp_t {
    uint32_t lo, hi, lo_drop, hi_drop;
};

// Zeroes the distance of bad pixels. state holds a byte for each pixel, 1 for good.
void min_amp_plain(uint16_t *dist, const uint32_t *amp, size_t n, const min_amp_t &limits);
void min_amp_hyst_plain(uint16_t *dist, uint8_t *state, const uint32_t *amp, size_t n,
                        const min_amp_t &limits);

// Zeroes the distance where the squared amplitude is 0.
void zero_amp_plain(uint16_t *dist, const uint32_t *amp, size_t n);

// Gray from squared amplitude.
void amp_to_gray_plain(uint16_t *gray, const uint32_t *amp, size_t n);

// The forms that run: on vectors where the processor has them, with the same result.
void min_amp(uint16_t *dist, const uint32_t *amp, size_t n, const min_amp_t &limits);
void min_amp_hyst(uint16_t *dist, uint8_t *state, const uint32_t *amp, size_t n, const min_amp_t &limits);
void zero_amp(uint16_t *dist, const uint32_t *amp, size_t n);
void amp_to_gray(uint16_t *gray, const uint32_t *amp, size_t n);
