#include "image/lens_map.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <pthread.h>

#include "tq_lens.h"

#include "log/log.h"
#include "simd/dispatch.h"

namespace {

// Readers gather through a map, a writer exchanges it: a region of interest may change on one thread while
// another undistorts. One lock serves all maps, since the exchange takes an instant and comes once in a
// while.
pthread_rwlock_t g_map_lock = PTHREAD_RWLOCK_INITIALIZER;

class MapReader {
  public:
    MapReader() { pthread_rwlock_rdlock(&g_map_lock); }
    ~MapReader() { pthread_rwlock_unlock(&g_map_lock); }
    MapReader(const MapReader &) = delete;
    MapReader &operator=(const MapReader &) = delete;
};

// Puts a map in the place of another and hands out what was there.
tq_calib_len_map_t _len_exchange(tq_calib_len_map_t *map, const tq_calib_len_map_t &with)
{
    pthread_rwlock_wrlock(&g_map_lock);
    const tq_calib_len_map_t was = *map;
    *map = with;
    pthread_rwlock_unlock(&g_map_lock);
    return was;
}

// Far above any sensor; keeps a damaged size from taking the machine's memory.
constexpr uint64_t LEN_MAP_MAX_PIXELS = 1u << 26;

constexpr int LEN_COEF_CNT = 8;

// A lens as plain aligned values, with the coefficients of its model by name.
struct len_model_t {
    double cx, cy, fx, fy;
    double k1, k2, p1, p2, k3, k4, k5, k6;
};

// The camera matrix that keeps the whole of the source in view, [fx 0 cx; 0 fy cy; 0 0 1].
struct len_matrix_t {
    double fx, fy, cx, cy;
};

struct len_point_t {
    double x, y;
};

struct len_rect_t {
    float x, y, w, h;
};

// How many coefficients count.
int _len_coef_count(const tqcam_lens_param_t &lens)
{
    if (lens.n_dcoef != 0 || lens.dcoef[0] == 0)
        return lens.n_dcoef;
    int n = 1;
    while (n < TQ_LENS_DCOEF_NUM && lens.dcoef[n] != 0)
        n++;
    return n;
}

// A coefficient with an index of count or above is 0, those below always stay.
len_model_t _len_model(const tqcam_lens_param_t &lens, int count, int always)
{
    double c[LEN_COEF_CNT];
    for (int i = 0; i < LEN_COEF_CNT; i++)
        c[i] = i < count || i < always ? lens.dcoef[i] : 0;
    return {lens.cx, lens.cy, lens.fx, lens.fy, c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7]};
}

len_point_t _len_distort(const len_model_t &m, double x, double y)
{
    const double r2 = x * x + y * y;
    const double kr =
        (((m.k3 * r2 + m.k2) * r2 + m.k1) * r2 + 1) / (((m.k6 * r2 + m.k5) * r2 + m.k4) * r2 + 1);
    return {x * kr + 2 * m.p1 * x * y + m.p2 * (r2 + 2 * x * x),
            y * kr + m.p1 * (r2 + 2 * y * y) + 2 * m.p2 * x * y};
}

// The model has no closed inverse: five rounds of a fixed-point iteration come close enough for a rectangle.
len_point_t _len_undistort(const len_model_t &m, double x0, double y0)
{
    double x = x0, y = y0;
    for (int round = 0; round < 5; round++) {
        const double r2 = x * x + y * y;
        const double icd =
            (((m.k6 * r2 + m.k5) * r2 + m.k4) * r2 + 1) / (((m.k3 * r2 + m.k2) * r2 + m.k1) * r2 + 1);
        const double dx = 2 * m.p1 * x * y + m.p2 * (r2 + 2 * x * x);
        const double dy = m.p1 * (r2 + 2 * y * y) + 2 * m.p2 * x * y;
        x = (x0 - dx) * icd;
        y = (y0 - dy) * icd;
    }
    return {x, y};
}

// Undistorts a grid of 9 by 9 points over the image and projects it. The outer rectangle holds all points,
// the inner one lies between the border columns and rows. The last points lie at w and h, one pixel outside.
void _len_rectangles(const len_model_t &m, int w, int h, const len_matrix_t &proj, len_rect_t *inner,
                     len_rect_t *outer)
{
    constexpr int N = 9;
    float ix0 = -INFINITY, ix1 = INFINITY, iy0 = -INFINITY, iy1 = INFINITY;
    float ox0 = INFINITY, ox1 = -INFINITY, oy0 = INFINITY, oy1 = -INFINITY;
    for (int i = 0; i < N; i++) {
        for (int j = 0; j < N; j++) {
            const len_point_t p =
                _len_undistort(m, (j * w * 0.125 - m.cx) / m.fx, (i * h * 0.125 - m.cy) / m.fy);
            const float x = (float)(p.x * proj.fx + proj.cx), y = (float)(p.y * proj.fy + proj.cy);
            ox0 = std::min(ox0, x), ox1 = std::max(ox1, x);
            oy0 = std::min(oy0, y), oy1 = std::max(oy1, y);
            if (j == 0)
                ix0 = std::max(ix0, x);
            if (j == N - 1)
                ix1 = std::min(ix1, x);
            if (i == 0)
                iy0 = std::max(iy0, y);
            if (i == N - 1)
                iy1 = std::min(iy1, y);
        }
    }
    *inner = {ix0, iy0, ix1 - ix0, iy1 - iy0};
    *outer = {ox0, oy0, ox1 - ox0, oy1 - oy0};
}

// To the nearest integer for positive values, as the rectangle has always been rounded.
int32_t _len_round(float v)
{
    const double r = v + 0.5;
    return r > -2147483648.0 && r < 2147483648.0 ? (int32_t)r : 0;
}

// Where a source coordinate lies in an image of size n, or -1. Truncation towards zero: down to -1.5 counts
// as pixel 0.
int _len_pixel(float v, int n)
{
    const float r = v + 0.5f;
    if (!(r > -1.0f && r < (float)n))
        return -1;
    const int i = (int)r;
    return i < n ? i : -1;
}

// Fills the table and the rectangle; false when the lens describes no camera.
bool _len_fill(tq_calib_len_map_t *map, const tqcam_lens_param_t &lens)
{
    const int w = map->w, h = map->h;
    const int count = _len_coef_count(lens);
    const len_model_t in_rect = _len_model(lens, count, 0);
    // The map reads the first four in any case.
    const len_model_t model = _len_model(lens, count, 4);

    for (double v : {model.cx, model.cy, model.fx, model.fy, model.k1, model.k2, model.p1, model.p2, model.k3,
                     model.k4, model.k5, model.k6})
        if (!std::isfinite(v))
            return false;
    if (model.fx == 0 || model.fy == 0)
        return false;

    len_rect_t inner, outer;
    _len_rectangles(in_rect, w, h, {1, 1, 0, 0}, &inner, &outer);
    len_matrix_t cam;
    cam.fx = (w - 1) / (double)outer.w;
    cam.fy = (h - 1) / (double)outer.h;
    cam.cx = -outer.x * cam.fx;
    cam.cy = -outer.y * cam.fy;
    _len_rectangles(in_rect, w, h, cam, &inner, &outer);
    // The inverse, [1 / fx 0 -cx / fx; 0 1 / fy -cy / fy; 0 0 1].
    const len_matrix_t inv = {1 / cam.fx, 1 / cam.fy, -cam.cx / cam.fx, -cam.cy / cam.fy};
    for (double v : {inv.fx, inv.fy, inv.cx, inv.cy})
        if (!std::isfinite(v))
            return false;

    map->roi_x = _len_round(inner.x);
    map->roi_y = _len_round(inner.y);
    map->roi_w = _len_round(inner.w);
    map->roi_h = _len_round(inner.h);

    uint32_t *out = map->map;
    for (int j = 0; j < h; j++) {
        for (int i = 0; i < w; i++) {
            const len_point_t p = _len_distort(model, i * inv.fx + inv.cx, j * inv.fy + inv.cy);
            const int a = _len_pixel((float)(lens.fx * p.x + lens.cx), w);
            const int b = _len_pixel((float)(lens.fy * p.y + lens.cy), h);
            *out++ = a < 0 || b < 0 ? TQ_CALIB_LEN_NO_SOURCE : (uint32_t)b * (uint32_t)w + (uint32_t)a;
        }
    }
    return true;
}

template <class T, class Gather>
bool _len_undistort_image(const char *name, const tq_calib_len_map_t *map, T *dst, int dst_len, const T *src,
                          int w, int h, T fill, Gather gather)
{
    MapReader reader;
    if (!map || !dst || !src || !map->inited || !map->map || w != map->w || h != map->h) {
        LOG_AS(6, "ERR", name, "[%s]Wrong parameter: calib_map: %dx%d, src_img: %dx%d\n", map ? map->w : 0,
               map ? map->h : 0, w, h);
        return false;
    }
    const int count = std::min(map->n, dst_len);
    if (count < 1)
        return true;
    if (dst != src) {
        gather(dst, src, map->map, count, fill);
        return true;
    }
    T *tmp = (T *)malloc((size_t)map->n * sizeof(T));
    if (!tmp) {
        LOG_AS(6, "ERR", name, "[%s]malloc failed\n");
        return false;
    }
    gather(tmp, src, map->map, count, fill);
    memcpy(dst, tmp, (size_t)count * sizeof(T));
    free(tmp);
    return true;
}

} // namespace

// Builds the map of a lens; unset when there is none to be had. name is the public function, for the log.
static tq_calib_len_map_t _len_build(const char *name, const tqcam_lens_param_t *lens)
{
    tqcam_lens_param_t l;
    memcpy(&l, lens, sizeof(l));
    LOG_AS(0, "TRC", name, "[%s] len map: cx/cy/fx/fy=%.3f/%.3f/%.3f/%.3f, img=%u x %u, n_dcoef=%d\n", l.cx,
           l.cy, l.fx, l.fy, l.img_w, l.img_h, l.n_dcoef);
    for (int i = 0; i < l.n_dcoef && i < TQ_LENS_DCOEF_NUM; i++)
        LOG_AS(0, "TRC", name, "[%s]          coef[%d]: %f\n", i, l.dcoef[i]);

    const uint64_t n = (uint64_t)l.img_w * l.img_h;
    if (n == 0 || n > LEN_MAP_MAX_PIXELS) {
        LOG_AS(6, "ERR", name, "[%s]wrong parameter: img=%u x %u\n", l.img_w, l.img_h);
        return {};
    }
    tq_calib_len_map_t map = {};
    map.map = (uint32_t *)malloc(n * sizeof(uint32_t));
    if (!map.map) {
        LOG_AS(6, "ERR", name, "[%s]malloc failed\n");
        return {};
    }
    map.n = (int32_t)n;
    map.w = (int32_t)l.img_w;
    map.h = (int32_t)l.img_h;
    if (!_len_fill(&map, l)) {
        LOG_AS(5, "WRN", name, "[%s]lens is unusable: no pixel has a source\n");
        std::fill_n(map.map, n, TQ_CALIB_LEN_NO_SOURCE);
    }
    map.inited = 1;
    return map;
}

void tq_calib_len_init_map(tq_calib_len_map_t *map, const tqcam_lens_param_t *lens)
{
    if (!map || !lens) {
        LOG_ERROR("[%s]wrong parameter\n");
        return;
    }
    _len_exchange(map, _len_build(__func__, lens));
}

void tq_calib_len_update_map(tq_calib_len_map_t *map, const tqcam_lens_param_t *lens)
{
    if (!map || !lens) {
        LOG_ERROR("[%s]wrong parameter\n");
        return;
    }
    const tq_calib_len_map_t was = _len_exchange(map, _len_build("tq_calib_len_init_map", lens));
    if (was.inited)
        free(was.map);
}

void tq_calib_len_uninit_map(tq_calib_len_map_t *map)
{
    if (!map || !map->inited)
        return;
    tq_calib_len_map_t unset = *map;
    unset.map = nullptr;
    unset.inited = 0;
    free(_len_exchange(map, unset).map);
}

bool tq_calib_len_undistort_f32(const tq_calib_len_map_t *map, float *dst, int dst_len, const float *src,
                                int w, int h, float fill)
{
    return _len_undistort_image(__func__, map, dst, dst_len, src, w, h, fill,
                                simd_enabled() ? undistort_f32_simd : undistort_f32_plain);
}

bool tq_calib_len_undistort_u16(const tq_calib_len_map_t *map, uint16_t *dst, int dst_len,
                                const uint16_t *src, int w, int h, uint16_t fill)
{
    return _len_undistort_image(__func__, map, dst, dst_len, src, w, h, fill,
                                simd_enabled() ? undistort_u16_simd : undistort_u16_plain);
}
