// One raw frame to distance and squared amplitude: which samples a row takes, by which rule, and where it
// goes.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "drivers/common/phase.h"
#include "drivers/common/roi_size.h"
#include "drivers/epc/epc_priv.h"
#include "log/log.h"

static constexpr uint32_t TABLE_MAX = 65534;

static uint64_t _pixels(const epc_frame_t &f)
{
    return uint64_t{f.w} * f.h;
}

static uint32_t _row_out(const epc_frame_t &f, uint32_t y)
{
    return f.sort ? epc_image_row(y, f.h) : y;
}

// The samples of raw row y. In the interleaved modes two exposures stand in row pairs, the other one two rows
// on; first is the pair's first row.
static void _row_samples(const epc_frame_t &f, uint32_t y, uint32_t first, const uint16_t *p[4])
{
    const uint64_t n = _pixels(f);
    const auto row = [&](uint32_t plane, uint32_t r) { return f.raw + plane * n + uint64_t{r} * f.w; };
    if (!f.mode.interleaved) {
        for (uint32_t k = 0; k < 4; k++)
            p[k] = row(k, y);
        return;
    }
    const bool swap = first % 4 != 0;
    const uint32_t i_row = swap ? y + 2 : y, q_row = swap ? y : y + 2;
    const uint32_t second = f.mode.planes - 1u; // plane
    p[0] = row(0, i_row);
    p[1] = row(0, q_row);
    p[2] = row(second, i_row);
    p[3] = row(second, q_row);
}

// Runs fn(y, samples) for each raw row; in the interleaved modes the last two rows have no partner.
template <class Fn> static void _for_rows(const epc_frame_t &f, Fn fn)
{
    const uint16_t *p[4];
    const uint32_t step = f.mode.interleaved ? 2 : 1;
    const uint32_t end = f.mode.interleaved ? f.h - 2 : f.h;
    for (uint32_t first = 0; first < end; first += step) {
        for (uint32_t y = first; y < first + step; y++) {
            _row_samples(f, y, first, p);
            fn(y, p);
        }
    }
}

// And what the two rows before them hold goes there.
template <typename T> static void _copy_last_rows(const epc_frame_t &f, T *image)
{
    if (!f.mode.interleaved)
        return;
    for (uint32_t y = f.h - 2; y < f.h; y++)
        memcpy(image + uint64_t{_row_out(f, y)} * f.w, image + uint64_t{_row_out(f, y - 2)} * f.w,
               f.w * sizeof(T));
}

// Of the 2-DCS mode without interleaving: four planes are there, and the frequency tells which two count.
struct epc_pick_t {
    uint8_t i, q; // planes
    int32_t base;
};
static epc_pick_t _pick(uint32_t mod_freq)
{
    if (mod_freq > 24000000)
        return {0, 1, PHASE_HALF};
    if (mod_freq > 12000000)
        return {2, 3, 0};
    return {1, 2, 24576};
}

static epc_dist_t _dist_of(const epc_priv_t *p, const epc_frame_t &f, uint32_t mod_freq)
{
    epc_dist_t d = {};
    d.samples = f.mode.dcs == 4      ? EPC_SAMPLES_4DCS
                : f.mode.dcs == 1    ? EPC_SAMPLES_LEVEL
                : f.mode.interleaved ? EPC_SAMPLES_DIFF
                                     : EPC_SAMPLES_LEVEL;
    d.shift = f.mode.upper_bits ? 4 : 0;
    d.base = f.mode.interleaved || f.mode.dcs == 4 ? PHASE_HALF : _pick(mod_freq).base;
    d.dmax = p->dmax;
    if (d.dmax) {
        d.off = p->f_en_offset ? int32_t{p->user_offset} : 0;
        d.invalid = f.mode.dcs == 4 ? 0 : EPC_INVALID_DIST;
    }
    return d;
}

typedef void (*epc_row_fn_t)(const epc_row_t &row, const epc_dist_t &d);

// slope and offset are planes of the frame's size, or nullptr. Only the first pixels values are calculated.
static void _run(const epc_frame_t &f, const epc_dist_t &d, epc_row_fn_t fn, uint32_t mod_freq,
                 const int16_t *gray, const float *slope, const float *offset, uint64_t pixels)
{
    const bool level4 = d.samples == EPC_SAMPLES_LEVEL && !f.mode.interleaved;
    const epc_pick_t pick = _pick(mod_freq);
    _for_rows(f, [&](uint32_t y, const uint16_t *const p[4]) {
        const uint64_t at = uint64_t{y} * f.w, out = uint64_t{_row_out(f, y)} * f.w;
        epc_row_t row = {
            {p[0], p[1], p[2], p[3]},     gray ? gray + at : nullptr,     f.dist + out, f.amp + out,
            slope ? slope + at : nullptr, offset ? offset + at : nullptr, f.w};
        if (level4) {
            row.p[2] = p[pick.i];
            row.p[3] = p[pick.q];
        }
        if (at + f.w > pixels) {
            row.n = pixels > at ? pixels - at : 0;
            std::fill(row.dist + row.n, row.dist + f.w, uint16_t{0});
            std::fill(row.amp + row.n, row.amp + f.w, 0u);
        }
        fn(row, d);
    });
    _copy_last_rows(f, f.dist);
    _copy_last_rows(f, f.amp);
}

// Four pixels are a step in these modes.
static bool _shape_ok(const epc_frame_t &f)
{
    return _pixels(f) % 4 == 0 || (f.mode.dcs == 2 && !f.mode.interleaved);
}

int epc_calc_dist_raw(epc_priv_t *p, const epc_frame_t &f)
{
    if (!_shape_ok(f))
        return 0;
    const uint32_t mod_freq = p->mod_freq0;
    _run(f, _dist_of(p, f, mod_freq), epc_dist_row, mod_freq, nullptr, nullptr, nullptr, _pixels(f));
    return 1;
}

// What both calibrated calculations take; under calib_lock.
static void _fill_calibrated(epc_priv_t *p, epc_dist_t *d)
{
    const calib_result_t &c = p->calib;
    const bool sys = p->f_en_sys_calib;
    d->after.periodic = {c.amp, c.omega, c.pha, c.ofs};
    d->after.sys_k = sys ? to_i32(32768.0f * p->sys_scale) : 32768;
    d->after.sys_o = sys ? to_i32(p->sys_offset) : 0;
    d->after.dmax = d->dmax;
    d->tc = p->f_en_temp_corr ? _calc_get_temp_corr_phase(p) : 0.0f;
    d->slope_k = c.slope_k;
    d->global_k = static_cast<float>(c.slope_k / 1000.0 * d->dmax / 32768.0);
    d->global_off = int64_t{c.offset} - int64_t{to_i32(std::round(d->tc))} * d->dmax / PHASE_TURN + d->off;
}

// The reference is all zero until something measures one.
static const int16_t *_gray_reference(const epc_priv_t *p, const epc_frame_t &f)
{
    return p->gray_ready && p->gray_buf.size / 2 >= _pixels(f) ? p->gray_buf.as<int16_t>() : nullptr;
}

// The table reaches from one range below 0 to two above; what lies outside takes the rule itself.
static epc_after_table_t _after_table(epc_priv_t *p, const epc_after_t &a)
{
    const int32_t lo = -std::min<int32_t>(a.dmax, TABLE_MAX / 4);
    const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(int64_t{3} * a.dmax, TABLE_MAX));
    if (p->after_n == 0 || !(p->after_key == a)) {
        if (!p->after_table.need((TABLE_MAX + 1) * sizeof(uint16_t)))
            return {nullptr, 0, 0};
        uint16_t *const table = p->after_table.as<uint16_t>();
        table[0] = 0;
        for (uint32_t i = 0; i < n; i++)
            table[1 + i] = epc_after(lo + static_cast<int32_t>(i), a);
        p->after_key = a;
        p->after_n = n;
    }
    return {p->after_table.as<uint16_t>() + 1, lo, n};
}

static int _calc_drnu(epc_priv_t *p, const epc_frame_t &f, epc_dist_t *d, const roi_planes_t &planes)
{
    if (f.mode.interleaved && f.mode.dcs == 2 && f.w % 4 != 0) {
        LOG_AS(6, "ERR", "_calc_dist_calib_drnu_lut_4dcs_mbr", "[%s]width %d not support\n", f.w);
        return 0;
    }
    if (f.mode.dcs == 1 && (f.w % 4 != 0 || f.h < 4)) {
        LOG_AS(6, "ERR", "_calc_dist_calib_drnu_lut_2dcs_mbr", "[%s]image size %dx%d not support\n", f.w,
               f.h);
        return 0;
    }
    if (f.mode.dcs == 2 && !f.mode.interleaved) { // the frequency isn't asked here
        d->samples = EPC_SAMPLES_LEVEL_ALL;
        d->base = _pick(0).base;
    }
    d->after_table = _after_table(p, d->after);
    const uint64_t pixels = f.mode.dcs == 4 ? _pixels(f) & ~uint64_t{3} : _pixels(f);
    _run(f, *d, epc_drnu_row, 0, _gray_reference(p, f), p->calib.planes, p->calib.planes + planes.stride,
         pixels);
    return 1;
}

// A frame as large as the table pays for it, and so do terms that were those of the last frame: while a
// camera warms up they change by the millimetre.
static const uint16_t *_phase_table(epc_priv_t *p, const epc_frame_t &f, const epc_dist_t &d)
{
    const epc_dist_t &key = p->phase_key;
    const bool same = key.samples == d.samples && key.dmax == d.dmax && key.after == d.after &&
                      key.global_off == d.global_off && key.slope_k == d.slope_k &&
                      key.global_k == d.global_k;
    if (!same) {
        p->phase_key = d;
        p->phase_made = false;
    }
    if (p->phase_made || !(same || _pixels(f) >= PHASE_TURN))
        return p->phase_made ? p->phase_table.as<uint16_t>() : nullptr;
    if (!p->phase_table.need((PHASE_TURN + 1) * sizeof(uint16_t)))
        return nullptr;
    for (int32_t phase = 0; phase < PHASE_TURN; phase++)
        p->phase_table.as<uint16_t>()[phase] = epc_global_mm(phase, d);
    p->phase_table.as<uint16_t>()[PHASE_TURN] = 0;
    p->phase_made = true;
    return p->phase_table.as<uint16_t>();
}

static int _calc_global(epc_priv_t *p, const epc_frame_t &f, epc_dist_t *d)
{
    if (!_shape_ok(f))
        return 0;
    d->phase_table = _phase_table(p, f, *d);
    _run(f, *d, epc_global_row, p->mod_freq0, _gray_reference(p, f), nullptr, nullptr, _pixels(f));
    return 1;
}

int epc_calc_dist(epc_priv_t *p, const epc_frame_t &f)
{
    {
        DrvLock lock(p->calib_lock); // planes and terms must stay until the frame is done
        epc_dist_t d = _dist_of(p, f, p->mod_freq0);
        const bool each_pixel = p->f_en_pix_calib && !(p->sport_en && p->sport_mode == 1);
        const roi_planes_t planes = roi_planes_of(p->calib);
        // Planes of another size than the frame can't be used at all.
        const bool fits = !each_pixel || (planes.w == f.w && planes.h >= f.h);
        if (d.dmax && fits && epc_calib_is_ready(p)) {
            _fill_calibrated(p, &d);
            return each_pixel ? _calc_drnu(p, f, &d, planes) : _calc_global(p, f, &d);
        }
    }
    return epc_calc_dist_raw(p, f);
}

int epc_calc_gray(const epc_frame_t &f)
{
    if (_pixels(f) % 4 != 0)
        return 0;
    _for_rows(f, [&](uint32_t y, const uint16_t *const p[4]) {
        uint16_t *out = f.dist + uint64_t{_row_out(f, y)} * f.w;
        if (f.mode.dcs == 4 || (f.mode.dcs == 2 && f.mode.interleaved))
            epc_gray_diff_row(out, p, f.w);
        else
            epc_gray_level_row(out, p[0], p[1], f.w);
    });
    _copy_last_rows(f, f.dist);
    return 1;
}
