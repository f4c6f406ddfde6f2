#include "api/colour.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "tqcam.h"

tq_cmap_t *colour_map()
{
    static tq_cmap_t map{};
    return &map;
}

bool tqcam_cmap_palette_set(uint32_t palette)
{
    return tq_cmap_set_palette(colour_map(), palette);
}

uint32_t tqcam_cmap_palette_get(void)
{
    return tq_cmap_get_palette(colour_map());
}

namespace {

// Where a pixel format keeps its channels. Formats 3 and 5 put green first and red third, unlike 2 and 7.
struct pixel_format_t {
    uint8_t bytes;
    uint8_t r, g, b;
    uint8_t fourth; // value of the byte that is no channel
};

constexpr pixel_format_t kFormats[] = {
    {3, 0, 1, 2, 0},   // TQCAM_PIX_RGB
    {4, 0, 1, 2, 255}, // TQCAM_PIX_RGBA
    {3, 2, 1, 0, 0},   // TQCAM_PIX_BGR
    {4, 2, 0, 1, 255}, // TQCAM_PIX_GBRA
    {4, 0, 1, 2, 0},   // TQCAM_PIX_RGB0
    {4, 2, 0, 1, 0},   // TQCAM_PIX_GBR0
    {4, 1, 2, 3, 255}, // TQCAM_PIX_ARGB
    {4, 3, 2, 1, 255}, // TQCAM_PIX_ABGR
};

int _convert(const uint16_t *src, int n, uint8_t *r, uint8_t *g, uint8_t *b, int stride, uint16_t lo,
             uint16_t hi, bool histeq)
{
    return tq_cmap_u16_to_rgb(colour_map(), src, n, r, g, b, stride, lo, hi, histeq);
}

int _convert(const float *src, int n, uint8_t *r, uint8_t *g, uint8_t *b, int stride, float lo, float hi,
             bool histeq)
{
    return tq_cmap_f32_to_rgb(colour_map(), src, n, r, g, b, stride, lo, hi, histeq);
}

template <typename T>
int _dist_to_rgb(uint8_t *dst, int dst_len, const T *src, int src_len, int format, T lo, T hi,
                 const tqcam_cmap_opt_t *options)
{
    const uint32_t kept = tqcam_cmap_palette_get();
    if (!dst || !src || format < TQCAM_PIX_RGB || format > TQCAM_PIX_ABGR)
        return -22;
    if (options)
        tqcam_cmap_palette_set(options->palette);
    const pixel_format_t &pixel = kFormats[format];
    const int n = std::max(std::min(dst_len / pixel.bytes, src_len), 0);
    if (pixel.bytes == 4)
        memset(dst, pixel.fourth, (size_t)n * 4);
    _convert(src, n, dst + pixel.r, dst + pixel.g, dst + pixel.b, pixel.bytes, lo, hi,
             options && options->histeq_on != 0);
    if (options)
        tqcam_cmap_palette_set(kept);
    return n;
}

} // namespace

int tqcam_cmap_dist_u16_to_RGB(uint8_t *dst, int dst_len, const uint16_t *src, int src_len, int format,
                               uint16_t range_min, uint16_t range_max, const tqcam_cmap_opt_t *options)
{
    return _dist_to_rgb(dst, dst_len, src, src_len, format, range_min, range_max, options);
}

int tqcam_cmap_dist_f32_to_RGB(uint8_t *dst, int dst_len, const float *src, int src_len, int format,
                               const tqcam_cmap_opt_t *options, float range_min, float range_max)
{
    return _dist_to_rgb(dst, dst_len, src, src_len, format, range_min, range_max, options);
}

// A sample as an integer, cut toward zero; what isn't a number is 0 and what doesn't fit goes to an end.
static int _whole(uint16_t v)
{
    return v;
}

static int _whole(float v)
{
    return std::isnan(v) ? 0 : (int)std::clamp(v, -2147483648.0f, 2147483520.0f);
}

template <typename T> static int _gray_to_ir(uint8_t *dst, const T *src, int n, int balance)
{
    if (n <= 0 || !dst || !src)
        return n;
    int64_t sum = 0;
    int64_t count = 0;
    for (int k = 0; k < n; k++) {
        if (src[k] < (T)32768) { // others are marked invalid
            sum += _whole(src[k]);
            count++;
        }
    }
    int64_t divisor = 1;
    if (count > 0) {
        const float mean = (float)((double)sum / (double)count);
        const int64_t b = (int64_t)balance - 640;
        if ((int64_t)mean > b)
            divisor = std::max((int64_t)(mean - (float)b), (int64_t)1); // a negative mean may leave less
    }
    for (int k = 0; k < n; k++)
        dst[k] = (uint8_t)std::clamp((int64_t)_whole(src[k]) * 128 / divisor, (int64_t)0, (int64_t)255);
    return n;
}

int tqcam_cmap_gray_u16_to_IR(uint8_t *dst, int dst_len, const uint16_t *src, int src_len, int balance)
{
    (void)dst_len; // the output has one byte a sample
    return _gray_to_ir(dst, src, src_len, balance);
}

int tqcam_cmap_gray_f32_to_IR(uint8_t *dst, int dst_len, const float *src, int src_len, int balance)
{
    (void)dst_len;
    return _gray_to_ir(dst, src, src_len, balance);
}
