// The forms of the depth filters. The public functions check their arguments and choose; plain forms define
// the results.
#pragma once

#include <cstdint>

#include "tq_depth.h"

// w and h from 2 on; dst and src apart.
void flypix_u16_k3_plain(uint16_t *dst, const uint16_t *src, int w, int h, int thr);
// thr from 0 to 63.
void flypix_u16_k3_simd(uint16_t *dst, const uint16_t *src, int w, int h, int thr);
void flypix_u16_k5_plain(uint16_t *dst, const uint16_t *src, int w, int h, int thr);

// With dst and src the same, filled pixels feed the later ones; the vector form needs them apart.
void fhole_u16_k3_plain(uint16_t *dst, const uint16_t *src, int w, int h);
void fhole_u16_k3_simd(uint16_t *dst, const uint16_t *src, int w, int h);
void fhole_u16_k5_plain(uint16_t *dst, const uint16_t *src, int w, int h);

// One image through a filter of its size. All of f's buffers are scratch but for the tables.
void bpf2d_iir_plain(tq_bpf2d_iir_t *f, uint16_t *dst, const uint16_t *src);
void bpf2d_iir_simd(tq_bpf2d_iir_t *f, uint16_t *dst, const uint16_t *src);

// The vector form's blocks: rows in the row pass, columns in the column pass. The planes are as wide as whole
// blocks, and the line buffers have room for what a block needs.
constexpr int kBpf2dRows = 16;
constexpr int kBpf2dCols = 32;

// Behind the range table stand two more of as many entries, for the recursions: each weight times alpha_x,
// and times alpha_y.
inline const float *bpf2d_table_x(const tq_bpf2d_iir_t *f)
{
    return f->range_tbl + f->range_n;
}
inline const float *bpf2d_table_y(const tq_bpf2d_iir_t *f)
{
    return f->range_tbl + 2 * (uint64_t)f->range_n;
}
