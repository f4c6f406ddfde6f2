// What the driver does when a parameter changed.
#include "drivers/epc/epc_priv.h"

#include "drivers/common/dev_param.h"
#include "drivers/common/phase.h"
#include "log/log.h"

static void _refresh_sys_calib(epc_priv_t *p)
{
    float scale, offset;
    if (!dev_sys_calib_get(p->dev, &scale, &offset))
        return;
    p->sys_scale = scale;
    p->sys_offset = offset;
}

void epc_event_freq_change(tqcam_drv_t *drv, uint32_t f0, uint32_t f1)
{
    epc_priv_t *p = epc_priv(drv);
    if (f1) {
        LOG_WARN("[%s]MOD_FREQ [%d, %d] HZ not support\n", f0, f1);
        return;
    }
    DrvLock lock(p->calib_lock);
    if (f0 == p->mod_freq && p->calib_mounted)
        return;
    if (f0)
        LOG_DEBUG("[%s]MOD_FREQ change: [%d, %d] -> [%d, %d] HZ\n", uint32_t{p->mod_freq}, 0, f0, f1);
    else
        LOG_DEBUG("[%s]MOD_FREQ [%d, %d] HZ: try loading calib data\n", f0, f1);
    epc_calc_unmount_clib(drv);
    p->mod_freq = f0;
    epc_calc_mount_calib(drv);
    tqcam_lens_param_t lens;
    epc_lens_update(drv, &lens);

    // Still under the lock: a decode meets frequency, range and calibration that belong together.
    const int32_t dmax = range_of(p->mod_freq);
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
    _refresh_sys_calib(p);
}

void epc_on_update_fmt(tqcam_drv_t *drv, uint32_t fmt)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p)
        return;
    p->sport_en = fmt == EPC_FMT_1DCS || fmt == EPC_FMT_2DCS;
    p->sport_mode = fmt == EPC_FMT_1DCS;
    _refresh_sys_calib(p);
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

void epc_on_update_fps(tqcam_drv_t *drv, uint32_t fps)
{
    if (epc_priv_t *p = epc_priv(drv))
        frame_rate_set(&p->rate, fps);
}

void epc_on_update_gray_div(tqcam_drv_t *drv, uint16_t value)
{
    if (epc_priv_t *p = epc_priv(drv))
        p->gray_div = value ? value : 1;
}

void epc_on_cap_state(tqcam_drv_t *drv, int started)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p || started)
        return;
    temp_restart(&p->temp);
    p->rate.mark_ms = 0;
}
