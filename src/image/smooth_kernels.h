// Forms of the windows of fixed size. The plain form defines the result of each; w and h are at least 2, dst
// and src are distinct.
#pragma once

#include <cstdint>

void median2d_u16_k3_plain(uint16_t *dst, const uint16_t *src, int w, int h);
void median2d_u16_k3_simd(uint16_t *dst, const uint16_t *src, int w, int h);
void median2d_u16_k5_plain(uint16_t *dst, const uint16_t *src, int w, int h);
void median2d_u16_k5_simd(uint16_t *dst, const uint16_t *src, int w, int h);
void box2d_u16_k3_plain(uint16_t *dst, const uint16_t *src, int w, int h);
void box2d_u16_k3_simd(uint16_t *dst, const uint16_t *src, int w, int h);
void box2d_u32_k3_plain(uint32_t *dst, const uint32_t *src, int w, int h);
void box2d_u32_k3_simd(uint32_t *dst, const uint32_t *src, int w, int h);
void gauss2d_u16_k3_plain(uint16_t *dst, const uint16_t *src, int w, int h);
void gauss2d_u16_k3_simd(uint16_t *dst, const uint16_t *src, int w, int h);
