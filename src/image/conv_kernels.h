// Forms of the element conversions. The plain form defines the result of each. n is at least 1.
//
// The widening ones may run in place: the source may lie in the upper half of the destination, so that a form
// must have read an element before it writes at or behind it, front to back.
#pragma once

#include <cstdint>

void conv_u16_u8_plain(uint8_t *dst, const uint16_t *src, int n, int shift);
void conv_u16_u8_simd(uint8_t *dst, const uint16_t *src, int n, int shift);
void conv_u16_f32_plain(float *dst, const uint16_t *src, int n, float factor);
void conv_u16_f32_simd(float *dst, const uint16_t *src, int n, float factor);
void conv_u16_u32_plain(uint32_t *dst, const uint16_t *src, int n, uint16_t factor);
void conv_u16_u32_simd(uint32_t *dst, const uint16_t *src, int n, uint16_t factor);
void conv_f32_u8_plain(uint8_t *dst, const float *src, int n, float factor);
void conv_f32_u8_simd(uint8_t *dst, const float *src, int n, float factor);
void conv_f32_u16_plain(uint16_t *dst, const float *src, int n, float factor);
void conv_f32_u16_simd(uint16_t *dst, const float *src, int n, float factor);
void conv_f32_u32_plain(uint32_t *dst, const float *src, int n, float factor);
void conv_f32_u32_simd(uint32_t *dst, const float *src, int n, float factor);
void conv_u32_f32_plain(float *dst, const uint32_t *src, int n, float factor);
void conv_u32_f32_simd(float *dst, const uint32_t *src, int n, float factor);
