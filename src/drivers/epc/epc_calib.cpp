// The calibration in use: mounting it for the modulation frequency, and the correction for temperatures.
#include "drivers/epc/epc_priv.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "drivers/common/phase.h"
#include "drivers/common/roi_size.h"
#include "log/log.h"

// Of a camera that was calibrated without temperatures, at 12 MHz.
static constexpr float DEFAULT_TCOEF_MM[10] = {14.963f, 0, 13.78f, 1.183f, 0.2f, 0, 0, 0, 0, 0};
static constexpr uint32_t DEFAULT_TCOEF_CNT = 6;

bool epc_calib_is_ready(const epc_priv_t *p)
{
    return p->mod_freq && calib_result_freq(&p->calib, &p->roi) == p->mod_freq;
}

void epc_calc_unmount_clib(tqcam_drv_t *drv)
{
    epc_priv_t *p = epc_priv(drv);
    calib_result_free(&p->calib);
    p->calib_lens.store(nullptr, std::memory_order_release);
    if (p->calib_mounted) {
        p->calib_mounted = 0;
        LOG_DEBUG("[%s]Calib data unload [freq=%d, %d]\n", uint32_t{p->mod_freq}, 0);
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

// Loads and cuts to the device's region; false when nothing applies.
static bool _load(tqcam_drv_t *drv)
{
    epc_priv_t *p = epc_priv(drv);
    calib_result_t *c = &p->calib;
    int32_t count = EPC_CALIB_FREQ_NUM;
    const int32_t freq = calib_load(p->calib_path, p->mod_freq, c, p->calib_freqs, &count);
    if (freq == -1)
        return false;
    p->calib_freq_cnt = static_cast<uint32_t>(std::clamp<int32_t>(count, 0, EPC_CALIB_FREQ_NUM));
    if (freq < 0) {
        LOG_AS(5, "WRN", "epc_calc_mount_calib", "[%s]  * freq %u not calibrated\n", uint32_t{p->mod_freq});
        return false;
    }
    if (p->mod_freq == 0)
        p->mod_freq = static_cast<uint32_t>(freq);
    p->calib_lens.store(p->lens_pool.keep(c->lens), std::memory_order_release);
    c->lens = nullptr;

    if (roi_is_unset(p->roi)) {
        p->roi = c->roi;
        LOG_AS(1, "DBG", "epc_calc_mount_calib",
               "[%s] -> Init driver roi to calib ROI: [%d,%d,%d,%d] binn=%d \n", p->roi.srow, p->roi.erow,
               p->roi.scol, p->roi.ecol, p->roi.binning);
    }
    if (!calib_drnu_result_apply_roi(c, &p->roi)) {
        LOG_AS(5, "WRN", "epc_calc_mount_calib", "[%s] -> Apply roi to calib data failed\n");
        return false;
    }
    LOG_AS(1, "DBG", "epc_calc_mount_calib", "[%s] -> Apply roi to calib OK: [%d,%d,%d,%d] binn=%d \n",
           p->roi.srow, p->roi.erow, p->roi.scol, p->roi.ecol, p->roi.binning);
    return true;
}

int epc_calc_mount_calib(tqcam_drv_t *drv)
{
    epc_priv_t *p = epc_priv(drv);
    calib_result_t *c = &p->calib;
    LOG_TRACE("[%s]Mount\n");
    if (!_load(drv)) {
        epc_calc_unmount_clib(drv);
        calib_result_reset(c);
        LOG_INFO("[%s]No calib data : freq=%d. Use default scale_um/offset_mm = %d/%d\n",
                 uint32_t{p->mod_freq}, c->slope_k, c->offset);
        return -1;
    }
    if (c->tcoef_cnt == 0)
        _install_default_tcoef(c);
    LOG_INFO("[%s]Calib loaded [freq=%.1f]: DRNU: cb=%d, ib=%d, s_um/o_mm=%d/%d; TEMP[n=%d]: "
             "[%.2f,%.2f,%.2f,%.2f,%.2f]\n",
             p->mod_freq / 1e6, c->blk.t_cal0, c->blk.t_cal1, c->slope_k, c->offset, c->tcoef_cnt,
             c->tcoef_mm[0], c->tcoef_mm[1], c->tcoef_mm[2], c->tcoef_mm[3], c->tcoef_mm[4]);
    p->calib_mounted = 1;
    return 1;
}

float _calc_get_temp_corr_phase(const epc_priv_t *p)
{
    const calib_result_t &c = p->calib;
    const float q = static_cast<float>(p->mod_freq) / static_cast<float>(c.tcoef_hdr.freq);
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
