// The calibration in use: mounting it for the modulation frequency, and the correction for temperatures.
#include "drivers/epc/epc_priv.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "drivers/common/phase.h"
#include "log/log.h"

// Of a camera that was calibrated without temperatures, at 12 MHz.
static constexpr float DEFAULT_TCOEF_MM[10] = {14.963f, 0, 13.78f, 1.183f, 0.2f, 0, 0, 0, 0, 0};
static constexpr uint32_t DEFAULT_TCOEF_CNT = 6;

bool epc_calib_is_ready(const chip_priv_t *chip)
{
    const epc_priv_t *p = static_cast<const epc_priv_t *>(chip);
    return p->mod_freq0 && calib_result_freq(&p->calib, &p->roi) == p->mod_freq0;
}

void epc_calc_unmount_clib(chip_priv_t *chip)
{
    epc_priv_t *p = static_cast<epc_priv_t *>(chip);
    calib_result_free(&p->calib);
    p->calib_lens.store(nullptr, std::memory_order_release);
    if (p->calib_mounted) {
        p->calib_mounted = false;
        LOG_DEBUG("[%s]Calib data unload [freq=%d, %d]\n", uint32_t{p->mod_freq0}, 0);
    }
}

static void _install_default_tcoef(calib_result_t *c)
{
    c->tcoef_hdr.freq = 12000000;
    c->tcoef_hdr.intg = 500;
    std::copy(std::begin(DEFAULT_TCOEF_MM), std::end(DEFAULT_TCOEF_MM), c->tcoef_mm);
    c->tcoef_cnt = DEFAULT_TCOEF_CNT;
    for (uint32_t i = 0; i < DEFAULT_TCOEF_CNT; i++)
        c->tcoef[i] = c->tcoef_mm[i] / 12491.352f * 32768.0f;
}

int epc_calc_mount_calib(chip_priv_t *chip)
{
    epc_priv_t *p = static_cast<epc_priv_t *>(chip);
    calib_result_t *c = &p->calib;
    LOG_TRACE("[%s]Mount\n");
    if (!chip_calib_read(p, c, 0) || !chip_calib_cut(p, c)) {
        epc_calc_unmount_clib(p);
        calib_result_reset(c);
        chip_calib_log_none(p, c, __func__);
        return -1;
    }
    if (c->tcoef_cnt == 0)
        _install_default_tcoef(c);
    chip_calib_log(p, c, p->mod_freq0, c->tcoef_mm);
    p->calib_mounted = true;
    return 1;
}

float _calc_get_temp_corr_phase(const epc_priv_t *p)
{
    const calib_result_t &c = p->calib;
    const float q = static_cast<float>(p->mod_freq0) / static_cast<float>(c.tcoef_hdr.freq);
    const float k_cb = c.tcoef[2] * q, k_ib = c.tcoef[3] * q, k_fps = c.tcoef[4] / 10.0f * q;
    const int temp_cb = p->temp.temp_cb, temp_ib = p->temp.temp_ib, fps = p->rate.fps_set;
    const int f0 = c.blk.fps >= 1 && c.blk.fps <= 30 ? c.blk.fps : 10;
    const float cb = static_cast<float>(temp_cb - c.blk.t_cal0) * k_cb / 10.0f;
    const float ib = static_cast<float>(temp_ib - c.blk.t_cal1) * k_ib / 10.0f;
    const float rate = fps > 0 ? static_cast<float>(fps - f0) * k_fps : 0.0f;
    float tc = cb + ib;
    if (fps > 0)
        tc += rate;
    const float mm = static_cast<float>(p->dmax) / 32768.0f; // for the line
    LOG_TRACE("[%s]Tcb=%d[%d],Tib=%d[%d],fps=%d[%d/%d],intg=%d[%d],[cb:%.0f/%.1f,ib:%.0f/%.1f;fps:%.0f/%.1f] "
              "=> tcorr: %.0f/%.1fmm(dmax=%d, intg_err=%.1f)\n",
              temp_cb, c.blk.t_cal0, temp_ib, c.blk.t_cal1, fps, f0, c.blk.fps, uint32_t{p->intg_us},
              c.blk.intg, cb, cb * mm, ib, ib * mm, rate, rate * mm, tc, tc * mm, int32_t{p->dmax}, 0.0);
    return std::isfinite(tc) ? tc : 0.0f; // coefficients come from a file
}
