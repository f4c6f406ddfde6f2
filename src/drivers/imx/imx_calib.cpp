// The calibrations in use, one for each modulation frequency: mounting, and the correction for temperatures.
#include <algorithm>
#include <cmath>
#include <iterator>

#include "drivers/common/phase.h"
#include "drivers/imx/imx_priv.h"
#include "log/log.h"

// Of a camera that was calibrated without temperatures. Indices 2 to 4 are millimetres per degree of the
// board and of the light source and per frame a second; 6 to 9 are the terms of short integration times.
static constexpr float DEFAULT_TCOEF_MM[IMX_TCOEF_NUM] = {3.1f, 0,       2.5f,    0.6f,    0.2f,
                                                          0,    -4.064f, 47.397f, -6.596f, 0.334f};
enum { K1 = 2, K2 = 3, K3 = 4, C0 = 6, C1 = 7, C2 = 8, C3 = 9 };

bool imx_calib_is_ready(const chip_priv_t *chip)
{
    const imx_priv_t *p = static_cast<const imx_priv_t *>(chip);
    const auto ready = [p](int row, uint32_t freq) {
        return freq && calib_result_freq(&p->rows[row].calib, &p->roi) == freq;
    };
    return ready(0, p->mod_freq0) && (!p->mod_freq1 || ready(1, p->mod_freq1));
}

void imx_calc_unmount_calib(chip_priv_t *chip)
{
    imx_priv_t *p = static_cast<imx_priv_t *>(chip);
    for (imx_row_t &row : p->rows)
        calib_result_free(&row.calib);
    p->calib_lens.store(nullptr, std::memory_order_release);
    p->has_file_lens = 0;
    if (p->calib_mounted) {
        p->calib_mounted = false;
        LOG_DEBUG("[%s]Calib data unload [freq=%d, %d]\n", uint32_t{p->mod_freq0}, uint32_t{p->mod_freq1});
    }
}

static void _install_default_temp(imx_priv_t *p)
{
    for (imx_row_t &row : p->rows) {
        row.temp_hdr = {};
        row.temp_hdr.intg = 500;
        std::copy(std::begin(DEFAULT_TCOEF_MM), std::end(DEFAULT_TCOEF_MM), row.tcoef_mm);
    }
    p->temp_model_ready = true;
}

// Some kits mount the sensor the other way round, while their calibration shows the image as it should be.
// None that is known yet can be told from the others.
static bool _is_mirrored(const imx_priv_t *)
{
    return false;
}

void imx_calib_mirror(calib_result_t *c)
{
    const size_t w = c->blk.img_w, rows = size_t{2} * c->blk.img_h; // slopes, offsets
    for (size_t row = 0; c->planes && row < rows; row++)
        std::reverse(c->planes + row * w, c->planes + (row + 1) * w);
}

// Loads one row's calibration and cuts it to the device's region; false when nothing applies.
static bool _load_row(imx_priv_t *p, int index)
{
    imx_row_t &row = p->rows[index];
    calib_result_t *c = &row.calib;
    calib_result_reset(c);
    if (!chip_calib_read(p, c, index))
        return false;
    if (_is_mirrored(p)) {
        LOG_AS(1, "DBG", "imx_calc_mount_calib", "[%s] * IMX570 Minikit h-reverse...\n");
        imx_calib_mirror(c);
    }
    if (!chip_calib_cut(p, c))
        return false;
    if (c->tcoef_cnt > 0) {
        row.temp_hdr = c->tcoef_hdr;
        std::copy_n(c->tcoef_mm, std::min<uint32_t>(c->tcoef_cnt, IMX_TCOEF_NUM), row.tcoef_mm);
    }
    chip_calib_log(p, c, index == 0 ? p->mod_freq0 : p->mod_freq1, row.tcoef_mm);
    return true;
}

// The lens that the file's header describes, when it describes one.
static void _take_file_lens(imx_priv_t *p)
{
    tqcam_param_t file;
    if (!tqcam_param_open_file(&file, p->calib_path))
        return;
    if (file.hdr.name[0]) {
        p->file_lens = file.hdr.lens;
        p->has_file_lens = 1;
    }
    tqcam_param_close(&file);
}

static int imx_calc_mount_calib_ex(imx_priv_t *p, bool dual)
{
    LOG_TRACE("[%s]Mount\n");
    _install_default_temp(p);
    bool loaded = _load_row(p, 0);
    if (loaded && dual) {
        loaded = _load_row(p, 1);
        // Only the IMX570 is measured for each of its frequencies.
        if (loaded && !p->is_imx570) {
            p->rows[1].temp_hdr = p->rows[0].temp_hdr;
            std::copy_n(p->rows[0].tcoef_mm, static_cast<int>(IMX_TCOEF_NUM), p->rows[1].tcoef_mm);
        }
    }
    if (!loaded) {
        imx_calc_unmount_calib(p);
        for (imx_row_t &row : p->rows)
            calib_result_reset(&row.calib);
        chip_calib_log_none(p, &p->rows[0].calib, __func__);
        return -1;
    }
    if (!p->calib_lens)
        _take_file_lens(p);
    p->calib_mounted = true;
    return 1;
}

int imx_calc_mount_calib(chip_priv_t *chip)
{
    imx_priv_t *p = static_cast<imx_priv_t *>(chip);
    const bool dual = p->mod_freq1 != 0;
    const int result = imx_calc_mount_calib_ex(p, dual);
    p->dmax0 = range_of(p->mod_freq0); // with frequency 0, the calibration's
    p->dmax1 = range_of(p->mod_freq1); // 0 for one frequency: a frame of two can't be unwrapped then
    if (!dual)
        p->dmax = p->dmax0;
    return result;
}

// Piecewise around 20 degrees: below, the sensor drifts twice as fast, and below 0 by a line of its own. Sums
// run from left to right.
static float _piecewise(float cb, float ib, float t0, float t1, float k1, float k2)
{
    if (cb >= 200)
        return k1 * (cb - t0) / 10 + k2 * (ib - t1) / 10;
    const float cb_at_20 = k1 * (200 - t0) / 10, ib_at_20 = k2 * (200 - t1) / 10;
    if (cb >= 0)
        return 2 * k1 * (cb - 200) / 10 + 2 * k2 * (ib - 200) / 10 + cb_at_20 + ib_at_20;
    return 2 * k1 * cb / 10 + 2 * k2 * ib / 10 - 2.5f * (k1 + k2) * 200 / 10 + cb_at_20 + ib_at_20;
}

float imx_temp_corr_phase(const imx_priv_t *p, int index)
{
    const imx_row_t &row = p->rows[index];
    const calib_blk_info_t &blk = row.calib.blk;
    const bool dual = p->mod_freq1 != 0;
    const int32_t dm = dual ? p->dmax0 : p->dmax;
    if (dm == 0)
        return 0;
    const auto phase = [dm](float mm) { return mm * 32768.0f / static_cast<float>(dm); };
    const float *k = row.tcoef_mm;
    const float k1 = phase(k[K1]), k2 = phase(k[K2]), k3 = phase(k[K3] / 10);
    const auto cb = static_cast<float>(p->temp.temp_cb), ib = static_cast<float>(p->temp.temp_ib);
    const float t0 = blk.t_cal0, t1 = blk.t_cal1;
    if (!p->temp_model_ready)
        return k1 * (cb - t0) / 10;

    const float by_temp = _piecewise(cb, ib, t0, t1, k1, k2);
    int fps = p->rate.fps_set;
    if (dual && fps > 0)
        fps = fps < 15 ? fps * 2 : 30; // two exposures a frame
    const int f0 = blk.fps >= 1 && blk.fps <= 30 ? blk.fps : 10;
    const float by_rate = fps > 0 ? static_cast<float>(fps - f0) * k3 : 0.0f;
    float by_intg = 0;
    const uint32_t intg = p->intg_us;
    if (intg >= 1 && intg <= 599) {
        const float u = 100.0f / static_cast<float>(intg);
        const float c = (k[C3] * u + k[C2]) * u * u + k[C1] * u + k[C0];
        by_intg = phase(c > 0 ? c : 0.0f);
    }
    const float tc = by_temp + by_rate + by_intg;
    const float mm = static_cast<float>(dm) / 32768.0f; // for the line
    LOG_AS(0, "TRC", "_calc_get_temp_corr_phase",
           "[%s]Tcb=%d[%d],Tib=%d[%d],fps=%d[%d/%d],intg=%d[%d],[cb:%.0f/%.1f,ib:%.0f/%.1f;fps:%.0f/%.1f] "
           "=> tcorr: %.0f/%.1fmm(dmax=%d, intg_err=%.1f)\n",
           int16_t{p->temp.temp_cb}, blk.t_cal0, int16_t{p->temp.temp_ib}, blk.t_cal1, fps, f0, blk.fps, intg,
           blk.intg, k1, k[K1], k2, k[K2], by_rate, by_rate * mm, tc, tc * mm, dm, by_intg * mm);
    return std::isfinite(tc) ? tc : 0.0f; // coefficients come from a file
}
