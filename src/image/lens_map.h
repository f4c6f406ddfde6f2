// Forms of the gather through a lens map. The plain form defines the result. n is at least 1, dst and src are
// distinct, every index in map is a pixel of src or TQ_CALIB_LEN_NO_SOURCE.
#pragma once

#include <cstdint>

void undistort_f32_plain(float *dst, const float *src, const uint32_t *map, int n, float fill);
void undistort_f32_simd(float *dst, const float *src, const uint32_t *map, int n, float fill);
void undistort_u16_plain(uint16_t *dst, const uint16_t *src, const uint32_t *map, int n, uint16_t fill);
void undistort_u16_simd(uint16_t *dst, const uint16_t *src, const uint32_t *map, int n, uint16_t fill);
