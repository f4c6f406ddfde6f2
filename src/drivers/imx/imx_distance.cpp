// One raw frame to distance and squared amplitude: which sub-frames a pixel takes, and by which rule.
#include <algorithm>
#include <cstring>

#include "drivers/common/amp_kernels.h"
#include "drivers/common/phase.h"
#include "drivers/common/roi_size.h"
#include "drivers/imx/imx_priv.h"
#include "log/log.h"

// Pixels go through in tiles that stay in the first-level cache.
static constexpr size_t TILE = 512;

enum imx_calib_kind_t { CALIB_NONE, CALIB_GLOBAL, CALIB_PIXEL };

// I and Q of pixels from at on, n of them, a multiple of 4 but in the last tile of words.
static void _load_packed(const imx_frame_t &f, uint32_t pair, size_t at, size_t n, int16_t *i, int16_t *q)
{
    imx_unpack(i, f.layout.at(f.raw, pair) + at / 2 * 3, n);
    imx_unpack(q, f.layout.at(f.raw, pair + 1) + at / 2 * 3, n);
}

static void _zero_bad(int16_t *i, int16_t *q, const uint8_t *bad, size_t n)
{
    for (size_t k = 0; k < n; k++)
        if (bad[k])
            i[k] = q[k] = 0;
}

static void _load_words(const imx_frame_t &f, size_t at, size_t n, int16_t *i, int16_t *q)
{
    uint8_t bad[TILE] = {};
    imx_words_plain(i, bad, f.layout.at(f.raw, 0) + at * 2, n);
    imx_words_plain(q, bad, f.layout.at(f.raw, 1) + at * 2, n);
    _zero_bad(i, q, bad, n);
}

static void _load_4dcs(const imx_frame_t &f, size_t at, size_t n, int16_t *i, int16_t *q)
{
    uint8_t bad[TILE] = {};
    int16_t p[4][TILE];
    for (uint32_t k = 0; k < 4; k++)
        imx_words_plain(p[k], bad, f.layout.at(f.raw, k) + at * 2, n);
    for (size_t k = 0; k < n; k++) {
        i[k] = static_cast<int16_t>(p[2][k] - p[0][k]);
        q[k] = static_cast<int16_t>(p[3][k] - p[1][k]);
    }
    _zero_bad(i, q, bad, n);
}

// Of a frame of one frequency, or the first of two.
static void _load(const imx_frame_t &f, size_t at, size_t n, int16_t *i, int16_t *q)
{
    if (f.format->packed)
        _load_packed(f, 0, at, n, i, q);
    else if (f.format->subframes == 4)
        _load_4dcs(f, at, n, i, q);
    else
        _load_words(f, at, n, i, q);
}

static imx_map_t _map_of(const imx_priv_t *p, int32_t dm)
{
    const bool on = p->f_en_offset;
    return {on ? to_i32(32768.0f * p->user_scale) : PHASE_TURN,
            on ? static_cast<int32_t>(int64_t{p->user_offset} * PHASE_TURN / dm) : 0, dm};
}

static imx_line_t _line_of(const imx_priv_t *p, int row, int32_t dm, imx_calib_kind_t kind)
{
    if (kind == CALIB_NONE)
        return {};
    const calib_result_t &c = p->rows[row].calib;
    imx_line_t line = {};
    line.on = true;
    if (p->f_en_temp_corr) {
        line.tc = imx_temp_corr_phase(p, row);
        if (row == 1)
            line.tc = line.tc * static_cast<float>(p->dmax0) / static_cast<float>(dm);
    }
    line.slope = static_cast<float>(c.slope_k) / 1000.0f;
    line.offset = static_cast<float>(c.offset);
    if (kind == CALIB_PIXEL) {
        line.slopes = c.planes;
        line.offsets = c.planes + roi_planes_of(c).stride;
    }
    line.periodic = {c.amp, c.omega, c.pha, c.ofs};
    return line;
}

static imx_line_t _line_at(imx_line_t line, size_t at)
{
    if (line.slopes) {
        line.slopes += at;
        line.offsets += at;
    }
    return line;
}

// Do the planes of every row in use hold a value for each pixel of this frame?
static bool _planes_fit(const imx_priv_t *p, const imx_frame_t &f, int rows)
{
    for (int row = 0; row < rows; row++) {
        const roi_planes_t planes = roi_planes_of(p->rows[row].calib);
        if (!p->rows[row].calib.planes || planes.w != f.w || planes.h < f.h)
            return false;
    }
    return true;
}

static int _calc_single(imx_priv_t *p, const imx_frame_t &f, imx_calib_kind_t kind)
{
    const size_t n = size_t{f.w} * f.h;
    const int32_t dm = p->mod_freq1 ? p->dmax0 : p->dmax;
    if (dm == 0)
        return 0;
    if (kind == CALIB_PIXEL && !_planes_fit(p, f, 1))
        kind = CALIB_NONE;
    const imx_map_t map = _map_of(p, dm);
    const imx_line_t line = _line_of(p, 0, dm, kind);
    int16_t i[TILE], q[TILE];
    for (size_t at = 0; at < n; at += TILE) {
        const size_t m = std::min(TILE, n - at);
        _load(f, at, m, i, q);
        imx_dist(f.dist + at, f.amp + at, i, q, m, map, _line_at(line, at));
    }
    return 1;
}

static int _calc_dual(imx_priv_t *p, const imx_frame_t &f, imx_calib_kind_t kind)
{
    const size_t n = size_t{f.w} * f.h;
    if (p->dmax0 == 0 || p->dmax1 == 0)
        return 0;
    if (kind == CALIB_PIXEL && !_planes_fit(p, f, 2))
        kind = CALIB_NONE;
    // The fine pair comes last, unless the frame says that it may be otherwise and the frequencies agree.
    const bool fine_first = f.bit7 && p->mod_freq0 >= p->mod_freq1;
    const uint32_t hi_pair = fine_first ? 0 : 2, lo_pair = fine_first ? 2 : 0;
    const imx_map_t hi = _map_of(p, p->dmax0), lo = _map_of(p, p->dmax1);
    const imx_line_t hi_line = _line_of(p, 0, p->dmax0, kind), lo_line = _line_of(p, 1, p->dmax1, kind);
    int16_t i[TILE], q[TILE];
    uint16_t d_lo[TILE];
    uint32_t a_lo[TILE];
    for (size_t at = 0; at < n; at += TILE) {
        const size_t m = std::min(TILE, n - at);
        _load_packed(f, hi_pair, at, m, i, q);
        imx_dist(f.dist + at, f.amp + at, i, q, m, hi, _line_at(hi_line, at));
        _load_packed(f, lo_pair, at, m, i, q);
        imx_dist(d_lo, a_lo, i, q, m, lo, _line_at(lo_line, at));
        imx_unwrap(f.dist + at, f.amp + at, f.dist + at, f.amp + at, d_lo, a_lo, m, p->dmax0);
    }
    return 1;
}

static int _calc(imx_priv_t *p, const imx_frame_t &f, imx_calib_kind_t kind)
{
    if (uint64_t{f.w} * f.h % 4 != 0)
        return 0;
    switch (f.format->code) {
    case IMX_FMT_4DCS:
    case IMX_FMT_HDR:
    case IMX_FMT_PACKED:
        return _calc_single(p, f, kind);
    case IMX_FMT_PACKED_DUAL:
        return _calc_dual(p, f, kind);
    case IMX_FMT_IQ:
        if (kind != CALIB_NONE)
            return _calc_single(p, f, kind);
        LOG_AS(5, "WRN", "imx_calc_dist_calib_none", "[%s]QI format not support\n");
        return 0;
    case IMX_FMT_IQ_DUAL:
        LOG_AS(5, "WRN", "imx_calc_dist_calib_none", "[%s]QI-dfreq format not support\n");
        return 0;
    default:
        return 0;
    }
}

int imx_calc_dist_calib_none(imx_priv_t *p, const imx_frame_t &f)
{
    return _calc(p, f, CALIB_NONE);
}

int imx_calc_dist_calib_simple_sincor(imx_priv_t *p, const imx_frame_t &f)
{
    return _calc(p, f, CALIB_GLOBAL);
}

int imx_calc_dist_calib_drnu(imx_priv_t *p, const imx_frame_t &f)
{
    return _calc(p, f, CALIB_PIXEL);
}

int imx_calc_gray(uint16_t *gray, const imx_frame_t &f)
{
    const size_t n = size_t{f.w} * f.h;
    const bool brings_gray = f.format->code != IMX_FMT_1DCS && f.format->code != IMX_FMT_IQ_DUAL;
    if (n % 4 != 0 || !brings_gray)
        return 0;
    int16_t i[TILE], q[TILE];
    uint32_t amp[TILE];
    for (size_t at = 0; at < n; at += TILE) {
        const size_t m = std::min(TILE, n - at);
        _load(f, at, m, i, q);
        imx_amp(amp, i, q, m);
        amp_to_gray(gray + at, amp, m);
    }
    return 1;
}
