// At open: is there calibration, on disk or in the device, and at which modulation frequency does the device
// run from now on?
#include "drivers/epc/epc_priv.h"

#include <algorithm>
#include <cstring>

#include "drivers/common/calib_source.h"
#include "drivers/common/dev_param.h"
#include "log/log.h"

static constexpr uint32_t FALLBACK_FREQ = 12000000;

static void _decide_calibrated(tqcam_drv_t *drv, bool freq_read, uint32_t freq)
{
    epc_priv_t *p = epc_priv(drv);
    if (freq_read) {
        LOG_AS(4, "INF", "epc_calib_load", "[%s] adapting to device MOD_FREQ : [%u, %u] HZ\n", freq, 0u);
        epc_event_freq_change(drv, freq, 0);
        DrvLock lock(p->calib_lock);
        if (p->calib_mounted)
            return;
    } else {
        LOG_AS(6, "ERR", "epc_calib_load", "[%s] get mod freq failed\n");
    }
    epc_event_freq_change(drv, 0, 0); // the file's first frequency
    bool mounted;
    {
        DrvLock lock(p->calib_lock);
        mounted = p->calib_mounted;
    }
    const uint32_t calibrated = p->mod_freq;
    if (mounted && calibrated) {
        LOG_AS(4, "INF", "epc_calib_load", "[%s]set device freq to calibrated freq: [%u, %u]\n", calibrated,
               0u);
        dev_param_set_u32(p->dev, TQCAM_PARAM_MOD_FREQ, calibrated);
    }
}

static void _decide_uncalibrated(tqcam_drv_t *drv, bool freq_read, uint32_t freq)
{
    if (!freq_read)
        freq = FALLBACK_FREQ;
    LOG_AS(4, "INF", "epc_calib_load", "[%s]calib not valid: set freq to %u\n", freq);
    epc_event_freq_change(drv, freq, 0);
    if (!freq_read)
        dev_param_set_u32(epc_priv(drv)->dev, TQCAM_PARAM_MOD_FREQ, freq);
}

int epc_calib_load(tqcam_drv_t *drv, int, int, int)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p)
        return -1;
    if (!tq_priv_get_param_absolute_name(p->dev, p->calib_path, sizeof(p->calib_path))) {
        LOG_ERROR("[%s]cannot get param name!\n");
        return -1;
    }
    LOG_INFO("[%s]param_name:%s\n", p->calib_path);
    p->calib_ok = calib_source_ready(p->dev, p->calib_path, __func__);

    LOG_INFO("[%s]---- Decide mod-freq begin... \n");
    uint32_t freq;
    const bool freq_read = dev_param_get(p->dev, TQCAM_PARAM_MOD_FREQ, &freq, sizeof(freq));
    if (p->calib_ok)
        _decide_calibrated(drv, freq_read, freq);
    else
        _decide_uncalibrated(drv, freq_read, freq);
    LOG_INFO("[%s]---- Decide mod-freq end... \n");
    return 0;
}

int epc_calib_freq_get(tqcam_drv_t *drv, uint32_t *freqs, uint32_t *count)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p || !freqs || !count)
        return 0;
    DrvLock lock(p->calib_lock);
    *count = std::min(*count, p->calib_freq_cnt);
    memcpy(freqs, p->calib_freqs, *count * sizeof(*freqs));
    return static_cast<int>(p->calib_freq_cnt);
}
