// At open: is there calibration, on disk or in the device, and at which modulation frequencies does the
// device run from now on?
#include <algorithm>
#include <cstring>

#include "drivers/common/calib_source.h"
#include "drivers/common/dev_param.h"
#include "drivers/imx/imx_priv.h"
#include "log/log.h"

static constexpr uint32_t FALLBACK_FREQ = 120000000;
static const char *const _fn = "imx_calib_load";

struct freq_pair_t {
    uint32_t f0, f1;
};

// Does the device send frames of two frequencies?
static bool _runs_dual(imx_priv_t *p)
{
    uint32_t format = 0;
    if (!dev_param_get(p->dev, TQCAM_PARAM_FORMAT, &format, sizeof(format)))
        return false;
    const uint32_t code = format & 127;
    return code == IMX_FMT_IQ_DUAL || code == IMX_FMT_PACKED_DUAL;
}

static bool _read_freq(imx_priv_t *p, freq_pair_t *freq)
{
    *freq = {0, 0};
    if (_runs_dual(p))
        return dev_param_get(p->dev, TQCAM_PARAM_DUAL_FREQ, freq, sizeof(*freq));
    return dev_param_get(p->dev, TQCAM_PARAM_MOD_FREQ, &freq->f0, sizeof(freq->f0));
}

static bool _mounted(imx_priv_t *p)
{
    DrvLock lock(p->calib_lock);
    return p->calib_mounted;
}

static void _decide_calibrated(tqcam_drv_t *drv, bool freq_read, freq_pair_t freq)
{
    imx_priv_t *p = imx_priv(drv);
    if (freq_read) {
        LOG_AS(4, "INF", _fn, "[%s] adapting to device MOD_FREQ : [%u, %u] HZ\n", freq.f0, freq.f1);
        imx_event_freq_change(drv, freq.f0, freq.f1);
        // Frames of two frequencies can't be read with one: they stay as they are, without calibration.
        if (_mounted(p) || freq.f1)
            return;
    } else {
        LOG_AS(6, "ERR", _fn, "[%s] get mod freq failed\n");
    }
    imx_event_freq_change(drv, 0, 0); // the file's first frequency
    const uint32_t calibrated = p->mod_freq0;
    if (_mounted(p) && calibrated) {
        LOG_AS(4, "INF", _fn, "[%s]set device freq to calibrated freq: [%u, %u]\n", calibrated, 0u);
        dev_param_set_u32(p->dev, TQCAM_PARAM_MOD_FREQ, calibrated);
    }
}

static void _decide_uncalibrated(tqcam_drv_t *drv, bool freq_read, freq_pair_t freq)
{
    if (!freq_read)
        freq = {FALLBACK_FREQ, 0};
    LOG_AS(4, "INF", _fn, "[%s]calib not valid: set freq to %u\n", freq.f0);
    imx_event_freq_change(drv, freq.f0, freq.f1);
    if (!freq_read)
        dev_param_set_u32(imx_priv(drv)->dev, TQCAM_PARAM_MOD_FREQ, freq.f0);
}

int imx_calib_load(tqcam_drv_t *drv, int, int, int)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p)
        return -1;
    if (!tq_priv_get_param_absolute_name(p->dev, p->calib_path, sizeof(p->calib_path))) {
        LOG_ERROR("[%s]cannot get param name!\n");
        return -1;
    }
    LOG_INFO("[%s]param_name:%s\n", p->calib_path);
    p->calib_ok = calib_source_ready(p->dev, p->calib_path, __func__);

    LOG_INFO("[%s]---- Decide mod-freq begin... \n");
    freq_pair_t freq;
    const bool freq_read = _read_freq(p, &freq);
    if (p->calib_ok)
        _decide_calibrated(drv, freq_read, freq);
    else
        _decide_uncalibrated(drv, freq_read, freq);
    LOG_INFO("[%s]---- Decide mod-freq end... \n");
    return 0;
}

int imx_calib_freq_get(tqcam_drv_t *drv, uint32_t *freqs, uint32_t *count)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p || !freqs || !count)
        return 0;
    DrvLock lock(p->calib_lock);
    *count = std::min(*count, p->calib_freq_cnt);
    std::memcpy(freqs, p->calib_freqs, *count * sizeof(*freqs));
    return static_cast<int>(p->calib_freq_cnt);
}
