// What the driver does when a parameter changed.
#include "drivers/epc/epc_priv.h"

#include "drivers/common/phase.h"
#include "log/log.h"

void epc_event_freq_change(tqcam_drv_t *drv, uint32_t f0, uint32_t f1)
{
    epc_priv_t *p = epc_priv(drv);
    if (f1) {
        LOG_WARN("[%s]MOD_FREQ [%d, %d] HZ not support\n", f0, f1);
        return;
    }
    DrvLock lock(p->calib_lock);
    if (f0 == p->mod_freq0 && p->calib_mounted)
        return;
    if (f0)
        LOG_DEBUG("[%s]MOD_FREQ change: [%d, %d] -> [%d, %d] HZ\n", uint32_t{p->mod_freq0}, 0, f0, f1);
    else
        LOG_DEBUG("[%s]MOD_FREQ [%d, %d] HZ: try loading calib data\n", f0, f1);
    epc_calc_unmount_clib(p);
    p->mod_freq0 = f0;
    epc_calc_mount_calib(p);
    tqcam_lens_param_t lens;
    chip_lens_update(p, &lens);

    // Still under the lock: a decode meets frequency, range and calibration that belong together.
    const int32_t dmax = range_of(p->mod_freq0);
    p->dmax = dmax;
    p->tc_k0_ph = dmax ? (p->tc_k0 << 15) / static_cast<uint32_t>(dmax) : 0;
    p->tc_k_cb_ph = dmax ? p->tc_k_cb * 32768.0f / static_cast<float>(dmax) : 0.0f;
    p->tc_k_ib_ph = dmax ? p->tc_k_ib * 32768.0f / static_cast<float>(dmax) : 0.0f;
}

void epc_on_update_mod_freq(tqcam_drv_t *drv, uint32_t f0, uint32_t f1, uint32_t)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p)
        return;
    if (f0)
        epc_event_freq_change(drv, f0, f1);
    chip_sys_calib_refresh(p);
}

void epc_on_update_fmt(tqcam_drv_t *drv, uint32_t fmt)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p)
        return;
    p->sport_en = fmt == EPC_FMT_1DCS || fmt == EPC_FMT_2DCS;
    p->sport_mode = fmt == EPC_FMT_1DCS;
    chip_sys_calib_refresh(p);
}

void epc_on_update_intg_time(tqcam_drv_t *drv, uint32_t us, int index)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p)
        return;
    if (index)
        p->hdr_en = us != 0;
    else if (us != 65535)
        p->intg_us = us;
    LOG_DEBUG("[%s]intg%d: %d, hdr_en=%d\n", index, us, uint8_t{p->hdr_en});
}

void epc_on_update_roi(tqcam_drv_t *drv, const uint8_t *value)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p)
        return;
    const bool fixed_size = p->chip_variant == EPC_VARIANT_160X60;
    if (!fixed_size)
        p->chip_variant = EPC_VARIANT_ROI;
    chip_update_roi(p, value, fixed_size);
}
