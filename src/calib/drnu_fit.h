// The line fit of every pixel over the reference images, where loading spends its time.
#pragma once

#include <cstddef>
#include <cstdint>

struct drnu_fit_t {
    const uint8_t *images; // first image's first pixel
    size_t stride;         // bytes from one image to the next
    int n;                 // images
    int unwrap_skip;       // image at which the reference distance starts anew
    float range;           // unambiguous range, mm
    const float *y;        // true distances in mm, one an image; or n rows of DRNU_TILE, one a pixel
    bool y_per_pixel;
};

// Pixels fitted at a time: each image is read in runs of 1 KiB.
inline constexpr int DRNU_TILE = 512;

// Fits count pixels (at most DRNU_TILE) from pixel first on. work has room for n * DRNU_TILE floats.
void drnu_fit_tile(const drnu_fit_t *fit, size_t first, int count, float *work, float *slope, float *offset,
                   float *r2);

// The form that defines the result, tq_math_linear_LSR_f32 for each pixel, and the form on vectors.
void drnu_fit_tile_plain(const drnu_fit_t *fit, size_t first, int count, float *work, float *slope,
                         float *offset, float *r2);
void drnu_fit_tile_simd(const drnu_fit_t *fit, size_t first, int count, float *work, float *slope,
                        float *offset, float *r2);
