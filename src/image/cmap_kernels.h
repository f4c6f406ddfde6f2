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

void cmap_u16_to_rgb_simd(const palette_row_t *pal, const uint16_t *src, int n, const rgb_out_t &out,
                          uint16_t vmin, uint16_t vmax);
void cmap_f32_to_rgb_simd(const palette_row_t *pal, const float *src, int n, const rgb_out_t &out, float vmin,
                          float vmax);

// A colour as the vector forms handle it: one byte a channel, the lowest first in memory, 0 in the fourth.
// The channels stand in the order that they have in the pixel when its three bytes are neighbours.
struct rgb_order_t {
    uint8_t at[3]; // of R, G, B: 0 to 2
    bool packed;   // the pixel's bytes are neighbours
};
rgb_order_t cmap_order(const rgb_out_t &out);

// The places that a range of u16 values takes in a table: value - vmin, from 0, which is black, to this.
inline int cmap_table_last(uint16_t vmin, uint16_t vmax)
{
    return vmax > vmin ? vmax - vmin : 1;
}

// Fills a table of cmap_table_last() + 1 colours, and colours values by it.
void cmap_make_table_simd(const palette_row_t *pal, const rgb_order_t &order, uint16_t vmin, uint16_t vmax,
                          uint32_t *tbl);
void cmap_by_table_simd(const uint32_t *tbl, const uint16_t *src, int n, const rgb_out_t &out, uint16_t vmin,
                        uint16_t vmax);
