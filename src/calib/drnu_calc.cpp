#include "calib/drnu_calc.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "calib/drnu_fit.h"
#include "log/log.h"
#include "tq_math.h"

// Every line of the calculation stands under its one name.
#define LOG_CALC(level, tag, fmt, ...)                                                                       \
    LOG_AS(level, tag, "calib_drnu_result_calc", fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_CALC_TRACE(fmt, ...) LOG_CALC(0, "TRC", fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_CALC_DEBUG(fmt, ...) LOG_CALC(1, "DBG", fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_CALC_WARN(fmt, ...) LOG_CALC(5, "WRN", fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_CALC_ERROR(fmt, ...) LOG_CALC(6, "ERR", fmt __VA_OPT__(, ) __VA_ARGS__)

static constexpr uint8_t BLK_VER_STEPS = 142;   // from here on images carry distances and delay steps
static constexpr uint8_t VER_PIXEL_FIXED = 150; // from here on images are not shifted by a pixel
static constexpr uint32_t BAD_PIXELS_LOGGED = 8;
static constexpr float PHASE_TO_TURN = 1.0f / 32768;

template <typename T> using malloc_ptr = std::unique_ptr<T, decltype(&std::free)>;

// One calculation on its way.
struct calc_t {
    calib_drnu_input_t *in;
    uint32_t w, h;
    size_t pixels;
    int n;                               // images
    float range;                         // unambiguous range, mm
    int n_first;                         // images at the first reference distance
    int nref_d;                          // runs of equal reference distances
    float *resid, *phase, *dist, *y, *x; // work area: n values each, x three times as many
    float o, s0, s1, s2;                 // main fit: offset, coarse, fine, third delay step
    float g_slope, g_ofs, g_ofs_wrapped; // global line
};

[[noreturn]] static void _assert_fail(int line)
{
    tq_log(nullptr, TQ_LOG_ERROR, "ASSERT FAIL", "[%s:%d]\n", "calib_drnu_result_calc", line);
    if (tq_log_default()->file)
        std::fflush(tq_log_default()->file);
    std::fflush(stdout);
    std::abort();
}

static bool _is_stepped(const calc_t *c)
{
    return c->in->hdr->blk_ver >= BLK_VER_STEPS;
}

static uint8_t *_record(const calc_t *c, int i)
{
    return c->in->payload + static_cast<size_t>(i) * (sizeof(calib_ref_img_t) + 2 * c->pixels);
}

static calib_ref_img_t *_head(const calc_t *c, int i)
{
    return reinterpret_cast<calib_ref_img_t *>(_record(c, i));
}

// Phases lie at even offsets of an allocated payload, behind packed heads of even size.
static uint16_t *_image(const calc_t *c, int i)
{
    return reinterpret_cast<uint16_t *>(_record(c, i) + sizeof(calib_ref_img_t));
}

static int32_t _to_i32(float v)
{
    if (std::isnan(v))
        return 0;
    return v >= 2147483648.0f ? INT32_MAX : v < -2147483648.0f ? INT32_MIN : static_cast<int32_t>(v);
}

// Brings v within one range round 0. A value too far off for that to end is given up: false, and 0.
static bool _wrap(float v, float range, float *out)
{
    for (int steps = 0; std::fabs(v) >= range; steps++) {
        if (steps == 4096) {
            *out = 0;
            return false;
        }
        v = v > 0 ? v - range : v + range;
    }
    *out = v;
    return true;
}

static bool _check(const calib_drnu_input_t *in)
{
    const calib_blk_info_t *info = &in->info;
    if (info->freq == 0) {
        LOG_CALC_ERROR("[%s]wrong freq=%u in drnu blk \n", info->freq);
        return false;
    }
    if (info->nref < 2) {
        LOG_CALC_WARN("[%s]wrong num_dist in calib data: %d\n", info->nref);
        return false;
    }
    if (info->img_w == 0 || info->img_h == 0 || info->scale == 0)
        _assert_fail(__LINE__);
    const uint32_t w = info->img_w, h = info->img_h;
    const bool pairs = in->hdr->ver < VER_PIXEL_FIXED; // rows are moved in pairs
    if (w < CALIB_IMG_MIN || h < CALIB_IMG_MIN || w > CALIB_IMG_MAX || h > CALIB_IMG_MAX ||
        (pairs && h % 2)) {
        LOG_CALC_WARN("[%s]wrong image size in calib data: %ux%u\n", w, h);
        return false;
    }
    const uint64_t need = (sizeof(calib_ref_img_t) + 2 * uint64_t{w} * h) * static_cast<uint64_t>(info->nref);
    if (in->payload_size < need) {
        LOG_CALC_WARN("[%s]wrong payload in calib data: %llu bytes (expect %llu)\n",
                      static_cast<unsigned long long>(in->payload_size),
                      static_cast<unsigned long long>(need));
        return false;
    }
    return true;
}

// One full turn becomes 32768. Every value is looked up, since there are fewer values than pixels.
static bool _normalise_scale(const calc_t *c)
{
    const uint32_t scale = c->in->info.scale;
    if (scale == 32768)
        return true;
    LOG_CALC_DEBUG("[%s]scale %d -> %d\n", scale, 32768);
    const std::unique_ptr<uint16_t[]> lut(new (std::nothrow) uint16_t[65536]);
    if (!lut)
        return false;
    for (uint32_t v = 0; v < 65536; v++)
        lut[v] = static_cast<uint16_t>((v << 15) / scale);
    for (int i = 0; i < c->n; i++) {
        uint16_t *img = _image(c, i);
        for (size_t p = 0; p < c->pixels; p++)
            img[p] = lut[img[p]];
    }
    return true;
}

// Older files were written with the pixels of each pair of rows shifted by one.
static void _fix_one_pixel(const calc_t *c)
{
    if (c->in->hdr->ver >= VER_PIXEL_FIXED)
        return;
    LOG_CALC_DEBUG("[%s]Fix 1 pix calib issue of ref images: ver=%u\n", c->in->hdr->ver);
    const size_t run = 2 * static_cast<size_t>(c->w);
    for (int i = 0; i < c->n; i++)
        for (uint16_t *p = _image(c, i), *end = p + c->pixels; p < end; p += run)
            std::memmove(p + 1, p, 2 * (run - 1)); // the first pixel keeps what is now the second's
}

// Delay steps that are the same in all images were not recorded: the images then stand in steps of one.
static void _default_steps(const calc_t *c)
{
    if (_is_stepped(c))
        return;
    const calib_ref_img_t *first = _head(c, 0);
    for (int i = 1; i < c->n; i++) {
        const calib_ref_img_t *head = _head(c, i);
        if (head->Ns != first->Ns || head->Nf != first->Nf || head->Nc != first->Nc)
            return;
    }
    LOG_CALC_DEBUG("[%s]No Ns/Nf/Nc in calib data: use default Nc=arange(%d)\n", c->n);
    for (int i = 0; i < c->n; i++) {
        calib_ref_img_t *head = _head(c, i);
        head->Nc = static_cast<uint8_t>(i);
        head->Nf = head->Ns = 0;
    }
}

// The EPC sensor delivers its rows from the middle outwards, and so planes hold them. Older files show images
// from top to bottom.
static void _unsort_rows(const calc_t *c)
{
    if (_is_stepped(c) || c->w != 320 || c->h != 240)
        return;
    LOG_CALC_DEBUG("[%s]EPC unsort raw image...\n");
    const malloc_ptr<uint16_t> copy(static_cast<uint16_t *>(std::malloc(2 * c->pixels)), &std::free);
    if (!copy) {
        LOG_CALC_ERROR("[%s]malloc error\n");
        std::exit(3);
    }
    const size_t half = c->h / 2;
    for (int i = 0; i < c->n; i++) {
        uint16_t *img = _image(c, i);
        std::memcpy(copy.get(), img, 2 * c->pixels);
        for (size_t row = 0; row < c->h; row++) {
            const size_t to = row < half ? c->h - 2 - 2 * row : 2 * (row - half) + 1;
            std::memcpy(img + to * c->w, copy.get() + row * c->w, 2 * static_cast<size_t>(c->w));
        }
    }
}

static void _count_distances(calc_t *c)
{
    c->n_first = 0;
    c->nref_d = 1;
    if (!_is_stepped(c))
        return;
    for (int i = 0; i < c->n; i++) {
        c->n_first += _head(c, i)->ref_mm == _head(c, 0)->ref_mm;
        c->nref_d += i > 0 && _head(c, i)->ref_mm != _head(c, i - 1)->ref_mm;
    }
}

// What the 25 pixels at the centre show in each image, a turn added where the phase fell behind.
static void _measure_centre(calc_t *c)
{
    const size_t row0 = c->h / 2 - 2, col0 = c->w / 2 - 2;
    for (int i = 0; i < c->n; i++) {
        const bool unwrap = i != 0 && i != c->n / c->nref_d;
        uint32_t sum = 0;
        for (size_t row = row0; row < row0 + 5; row++) {
            for (size_t col = col0; col < col0 + 5; col++) {
                const uint16_t v = _image(c, i)[row * c->w + col];
                sum += v + (unwrap && static_cast<float>(v) < c->phase[i - 1] ? 65536u : 0u);
            }
        }
        c->phase[i] = static_cast<float>(sum / 25);
        c->dist[i] = c->phase[i] * PHASE_TO_TURN * c->range;
    }
}

// Fits dist of the first n images on their coarse and fine steps. Returns r.
static float _fit_steps(calc_t *c, const int *which, int n)
{
    float *x = c->x, *y = c->y;
    for (int j = 0; j < n; j++) {
        const int i = which ? which[j] : j;
        x[j] = _head(c, i)->Nc;
        x[n + j] = _head(c, i)->Nf;
        y[j] = c->dist[i];
        LOG_CALC_TRACE("[%s] dist/Nc/Nf: %f, %f, %f\n", y[j], x[j], x[n + j]);
    }
    float coef[3] = {}, r = 0;
    tq_math_multiple_linear_fit_f32(x, y, nullptr, n, coef, 3, &r);
    c->o = coef[0];
    c->s0 = coef[1];
    c->s1 = coef[2];
    return r;
}

// MFIT for several reference distances. Returns its r value.
static float _fit_distances(calc_t *c)
{
    int which[INT8_MAX], n_first = 0;
    for (int i = 0; i < c->n; i++)
        if (_head(c, i)->ref_mm == _head(c, 0)->ref_mm)
            which[n_first++] = i;
    if (n_first != c->n_first)
        _assert_fail(__LINE__);
    const float first_r = _fit_steps(c, which, n_first);
    LOG_CALC_DEBUG("[%s]MFIT(nref=1, 1st): r=%f, o=%f, s=[%f, %f]\n", first_r, c->o, c->s0, c->s1);

    // An image that is a whole turn off what the first distance predicts is brought back.
    const int n = c->n;
    for (int i = 0; i < n; i++) {
        const calib_ref_img_t *head = _head(c, i);
        const float r = static_cast<float>(head->ref_mm / 1000);
        const float e = c->dist[i] - r - (head->Nc * c->s0 + c->o + head->Nf * c->s1);
        if (e > c->range / 2) {
            c->phase[i] -= 32768;
            c->dist[i] -= c->range;
        } else if (e < -c->range / 2) {
            c->phase[i] += 32768;
            c->dist[i] += c->range;
        }
        c->x[i] = head->Nc;
        c->x[n + i] = head->Nf;
        c->x[2 * n + i] = r;
        LOG_CALC_TRACE("[%s] phase/dist/Nc/Nf/ref_mm: %f, %f, %f, %f, %f\n", c->phase[i], c->dist[i], c->x[i],
                       c->x[n + i], r);
    }
    float coef[4] = {}, mr = 0;
    tq_math_multiple_linear_fit_f32(c->x, c->phase, nullptr, n, coef, 4, &mr);
    c->o = coef[0] * PHASE_TO_TURN * c->range;
    c->s0 = coef[1] * PHASE_TO_TURN * c->range;
    c->s1 = coef[2] * PHASE_TO_TURN * c->range;
    c->s2 = coef[3]; // stays phase per mm
    const float mhz = c->s2 * PHASE_TO_TURN * 1.4989622e8f / 1000;
    LOG_CALC_DEBUG("[%s]MFIT(nref=%d): r=%f, f=~%.2fMHz, o=%f,s=[%f, %f, %f]\n", c->nref_d, mr, mhz, c->o,
                   c->s0, c->s1, c->s2);
    return mr;
}

static float _reference(const calc_t *c, int i)
{
    return _is_stepped(c) ? static_cast<float>(_head(c, i)->ref_mm) / 1000 : c->in->info.ref_cm * 10;
}

// LFIT, the line from measured to true distance at the centre. Returns its r value.
static float _fit_line(calc_t *c, calib_result_t *res)
{
    for (int i = 0; i < c->n; i++) {
        const calib_ref_img_t *head = _head(c, i);
        const float ref = _reference(c, i);
        c->y[i] = head->Nc * c->s0 + ref + head->Nf * c->s1 + head->Ns * c->s2;
        LOG_CALC_TRACE("[%s] dist/ref_dist: %f, %f, %d, %f\n", c->dist[i], ref, head->Nc, c->y[i]);
    }
    float coef[2] = {}, lr = 0;
    tq_math_multiple_linear_fit_f32(c->dist, c->y, nullptr, c->n, coef, 2, &lr);
    c->g_ofs = coef[0];
    c->g_slope = coef[1];
    LOG_CALC_DEBUG("[%s]LFIT (r=%f): o=%f, s=%f\n", lr, c->g_ofs, c->g_slope);
    _wrap(c->g_ofs, c->range, &c->g_ofs_wrapped);
    res->slope_k = _to_i32(c->g_slope * 1000);
    res->offset = _to_i32(c->g_ofs_wrapped);
    return lr;
}

// SFIT, the periodic error round that line: four waves a range. Returns its r value.
static float _fit_wave(calc_t *c, calib_result_t *res)
{
    const int n = c->n;
    const float omega = 25.132742f / c->range;
    for (int i = 0; i < n; i++) {
        const float m = c->g_slope * c->dist[i] + c->g_ofs;
        c->x[i] = std::sin(omega * m);
        c->x[n + i] = std::cos(omega * m);
        c->resid[i] = c->y[i] - m;
        LOG_CALC_TRACE("[%s]x_vec[j]=%f, y_vec[j]=%f\n", m, c->resid[i]);
    }
    float coef[3] = {}, sr = 0;
    tq_math_multiple_linear_fit_f32(c->x, c->resid, nullptr, n, coef, 3, &sr);
    res->amp = std::sqrt(coef[1] * coef[1] + coef[2] * coef[2]);
    res->omega = omega;
    res->pha = atan2f(coef[2], coef[1]);
    res->ofs = coef[0];
    LOG_CALC_DEBUG("[%s]SFIT (r=%f): amp=%f, omega=%f, pha=%f, ofs=%f\n", sr, res->amp, res->omega, res->pha,
                   res->ofs);
    // Too few images for a wave: better none than a distance that is no number.
    if (!std::isfinite(res->amp) || !std::isfinite(res->pha) || !std::isfinite(res->ofs))
        res->amp = res->pha = res->ofs = 0;
    return sr;
}

// True distances of count pixels in image k when its reference is a depth: the rays to the pixels are longer.
static void _radial_references(const calc_t *c, int k, size_t first, int count, float *y)
{
    const calib_drnu_input_t *in = c->in;
    const calib_ref_img_t *head = _head(c, k);
    const float z = _reference(c, k);
    for (int i = 0; i < count; i++) {
        const size_t p = first + static_cast<size_t>(i);
        const auto col = static_cast<double>(p % c->w), row = static_cast<double>(p / c->w);
        const auto x3 = static_cast<float>((col - in->cx) * static_cast<double>(z) / in->fx);
        const auto y3 = static_cast<float>((row - in->cy) * static_cast<double>(z) / in->fy);
        const float ref = std::sqrt(x3 * x3 + y3 * y3 + z * z);
        y[i] = ref + head->Nc * c->s0 + head->Nf * c->s1;
    }
}

// The line of every pixel. False when out of memory.
static bool _fit_pixels(const calc_t *c, float *planes)
{
    const bool radial = c->in->ref_conv || c->in->info.ref_is_z == 1;
    if (radial)
        LOG_CALC_DEBUG("[%s]ref_dist convert to d with cx/cy/fx/fy: %.f/%.f/%.f/%.f\n", c->in->cx, c->in->cy,
                       c->in->fx, c->in->fy);
    const size_t tile_floats = static_cast<size_t>(c->n) * DRNU_TILE;
    const malloc_ptr<float> buf(
        static_cast<float *>(std::malloc((2 * tile_floats + 3 * DRNU_TILE) * sizeof(float))), &std::free);
    if (!buf)
        return false;
    float *work = buf.get(), *y = work + tile_floats;
    float *slope = y + tile_floats, *offset = slope + DRNU_TILE, *r2 = offset + DRNU_TILE;
    for (int k = 0; k < c->n && !radial; k++) {
        const calib_ref_img_t *head = _head(c, k);
        y[k] = _reference(c, k) + head->Nc * c->s0 + head->Nf * c->s1;
    }
    const drnu_fit_t fit{reinterpret_cast<const uint8_t *>(_image(c, 0)),
                         sizeof(calib_ref_img_t) + 2 * c->pixels,
                         c->n,
                         c->n / c->nref_d,
                         c->range,
                         y,
                         radial};
    uint32_t bad = 0;
    for (size_t first = 0; first < c->pixels; first += DRNU_TILE) {
        const int count = c->pixels - first < DRNU_TILE ? static_cast<int>(c->pixels - first) : DRNU_TILE;
        for (int k = 0; k < c->n && radial; k++)
            _radial_references(c, k, first, count, y + static_cast<size_t>(k) * DRNU_TILE);
        drnu_fit_tile(&fit, first, count, work, slope, offset, r2);
        for (int i = 0; i < count; i++) {
            const size_t p = first + static_cast<size_t>(i);
            float s = slope[i], o = 0;
            // A pixel that never changes has no line at all, which is worse than a poor one.
            const bool good = std::isfinite(s) && std::isfinite(offset[i]) && _wrap(offset[i], c->range, &o);
            if (!good || r2[i] < 0.98f) {
                if (bad++ < BAD_PIXELS_LOGGED)
                    LOG_CALC_DEBUG("[%s] bad blk[r=%d,c=%d]: r/s/ot: %f, %f, %f\n",
                                   static_cast<int>(p / c->w), static_cast<int>(p % c->w), r2[i], s,
                                   offset[i]);
                s = c->g_slope;
                o = c->g_ofs_wrapped;
            }
            planes[p] = s;
            planes[c->pixels + p] = o;
        }
    }
    if (bad)
        LOG_CALC_DEBUG("[%s] bad blk total cnt: %u\n", bad);
    return true;
}

bool calib_drnu_result_calc(calib_drnu_input_t *in, calib_result_t *res)
{
    if (!_check(in))
        return false;
    calc_t c{};
    c.in = in;
    c.w = in->info.img_w;
    c.h = in->info.img_h;
    c.pixels = static_cast<size_t>(c.w) * c.h;
    c.n = in->info.nref;
    c.range = static_cast<float>(149896224000.0 / in->info.freq);
    const auto n = static_cast<size_t>(c.n);
    const malloc_ptr<float> tmp(static_cast<float *>(std::calloc(n, 8 * sizeof(float))), &std::free);
    if (!tmp) {
        LOG_ERROR("[%s]malloc tmp_buf failed\n");
        return false;
    }
    malloc_ptr<float> planes(static_cast<float *>(std::calloc(c.pixels * 20 + 112, 1)), &std::free);
    if (!planes) {
        LOG_ERROR("[%s]malloc res failed\n");
        return false;
    }
    c.resid = tmp.get();
    c.phase = c.resid + n;
    c.dist = c.phase + n;
    c.y = c.dist + n;
    c.x = c.y + n;
    res->blk = in->info;

    // The order counts: each step expects what the one before it left.
    if (!_normalise_scale(&c))
        return false;
    _fix_one_pixel(&c);
    _default_steps(&c);
    _unsort_rows(&c);
    _count_distances(&c);
    _measure_centre(&c);
    float mr;
    if (c.nref_d >= 2) {
        mr = _fit_distances(&c);
    } else {
        mr = _fit_steps(&c, nullptr, c.n);
        LOG_DEBUG("[%s]MFIT(nref=1): r=%f, o=%f, s=[%f, %f]\n", mr, c.o, c.s0, c.s1);
    }
    const float lr = _fit_line(&c, res);
    const float sr = _fit_wave(&c, res);
    if (mr < 0.9f || lr < 0.9f || sr < 0.6f)
        LOG_WARN("[%s]Calib data may be wrong: r = (%f,%f,%f)\n", mr, lr, sr);
    if (!_fit_pixels(&c, planes.get()))
        return false;
    res->planes = planes.release();
    res->roi_applied = 0;
    res->roi = {0, static_cast<uint16_t>(c.h - 1), 0, static_cast<uint16_t>(c.w - 1), 0, {}};
    return true;
}
