// The forms of the colour conversion. A form colours n values between the ends of a range; the plain one
// defines the bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "image/palettes.h"

// Where pixels go.
struct rgb_out_t {
    uint8_t *r, *g, *b; // of the first pixel
    ptrdiff_t stride;   // bytes from one pixel to the next
};

void cmap_u16_to_rgb_plain(const palette_row_t *pal, const uint16_t *src, int n, const rgb_out_t &out,
                           uint16_t vmin, uint16_t vmax);
void cmap_f32_to_rgb_plain(const palette_row_t *pal, const float *src, int n, const rgb_out_t &out,
                           float vmin, float vmax);
