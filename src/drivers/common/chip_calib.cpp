// At open: is there calibration, on disk or in the device, and at which modulation frequencies does the
// device run from now on? And what mounting a calibration is made of.
#include <algorithm>
#include <cstring>

#include "drivers/common/calib_source.h"
#include "drivers/common/chip.h"
#include "drivers/common/dev_param.h"
#include "drivers/common/roi_size.h"
#include "log/log.h"

static bool _mounted(chip_priv_t *p)
{
    DrvLock lock(p->calib_lock);
    return p->calib_mounted;
}

static void _decide_calibrated(tqcam_drv_t *drv, bool freq_read, const uint32_t freq[2])
{
    chip_priv_t *p = chip_priv(drv);
    const char *const name = p->family->name.calib_load;
    if (freq_read) {
        LOG_AS(4, "INF", name, "[%s] adapting to device MOD_FREQ : [%u, %u] HZ\n", freq[0], freq[1]);
        p->family->freq_change(drv, freq[0], freq[1]);
        // Frames of two frequencies can't be read with one: they stay as they are, without calibration.
        if (_mounted(p) || freq[1])
            return;
    } else {
        LOG_AS(6, "ERR", name, "[%s] get mod freq failed\n");
    }
    p->family->freq_change(drv, 0, 0); // the file's first frequency
    const uint32_t calibrated = p->mod_freq0;
    if (_mounted(p) && calibrated) {
        LOG_AS(4, "INF", name, "[%s]set device freq to calibrated freq: [%u, %u]\n", calibrated, 0u);
        dev_param_set_u32(p->dev, TQCAM_PARAM_MOD_FREQ, calibrated);
    }
}

static void _decide_uncalibrated(tqcam_drv_t *drv, bool freq_read, const uint32_t freq[2])
{
    chip_priv_t *p = chip_priv(drv);
    const uint32_t f0 = freq_read ? freq[0] : p->family->fallback_freq, f1 = freq_read ? freq[1] : 0;
    LOG_AS(4, "INF", p->family->name.calib_load, "[%s]calib not valid: set freq to %u\n", f0);
    p->family->freq_change(drv, f0, f1);
    if (!freq_read)
        dev_param_set_u32(p->dev, TQCAM_PARAM_MOD_FREQ, f0);
}

int chip_calib_load(tqcam_drv_t *drv, int, int, int)
{
    chip_priv_t *p = chip_priv(drv);
    if (!p)
        return -1;
    const char *const name = p->family->name.calib_load;
    if (!tq_priv_get_param_absolute_name(p->dev, p->calib_path, sizeof(p->calib_path))) {
        LOG_AS(6, "ERR", name, "[%s]cannot get param name!\n");
        return -1;
    }
    LOG_AS(4, "INF", name, "[%s]param_name:%s\n", p->calib_path);
    p->calib_ok = calib_source_ready(p->dev, p->calib_path, name);

    LOG_AS(4, "INF", name, "[%s]---- Decide mod-freq begin... \n");
    uint32_t freq[2] = {};
    const bool freq_read = p->family->read_freq(p, freq);
    if (p->calib_ok)
        _decide_calibrated(drv, freq_read, freq);
    else
        _decide_uncalibrated(drv, freq_read, freq);
    LOG_AS(4, "INF", name, "[%s]---- Decide mod-freq end... \n");
    return 0;
}

int chip_calib_freq_get(tqcam_drv_t *drv, uint32_t *freqs, uint32_t *count)
{
    chip_priv_t *p = chip_priv(drv);
    if (!p || !freqs || !count)
        return 0;
    DrvLock lock(p->calib_lock);
    *count = std::min(*count, p->calib_freq_cnt);
    memcpy(freqs, p->calib_freqs, *count * sizeof(*freqs));
    return static_cast<int>(p->calib_freq_cnt);
}

bool chip_calib_read(chip_priv_t *p, calib_result_t *c, int row)
{
    const bool first = row == 0;
    const uint32_t wanted = first ? p->mod_freq0 : p->mod_freq1;
    int32_t count = first ? CHIP_CALIB_FREQ_NUM : 0;
    const int32_t freq = calib_load(p->calib_path, wanted, c, first ? p->calib_freqs : nullptr, &count);
    if (freq == -1)
        return false;
    if (first)
        p->calib_freq_cnt = static_cast<uint32_t>(std::clamp<int32_t>(count, 0, CHIP_CALIB_FREQ_NUM));
    if (freq < 0) {
        LOG_AS(5, "WRN", p->family->name.mount, "[%s]  * freq %u not calibrated\n", wanted);
        return false;
    }
    if (!first)
        return true;
    if (wanted == 0)
        p->mod_freq0 = static_cast<uint32_t>(freq);
    p->calib_lens.store(p->lens_pool.keep(c->lens), std::memory_order_release);
    c->lens = nullptr;
    return true;
}

bool chip_calib_cut(chip_priv_t *p, calib_result_t *c)
{
    const char *const name = p->family->name.mount;
    if (roi_is_unset(p->roi)) {
        p->roi = c->roi;
        LOG_AS(1, "DBG", name, "[%s] -> Init driver roi to calib ROI: [%d,%d,%d,%d] binn=%d \n", p->roi.srow,
               p->roi.erow, p->roi.scol, p->roi.ecol, p->roi.binning);
    }
    if (!calib_drnu_result_apply_roi(c, &p->roi)) {
        LOG_AS(5, "WRN", name, "[%s] -> Apply roi to calib data failed\n");
        return false;
    }
    LOG_AS(1, "DBG", name, "[%s] -> Apply roi to calib OK: [%d,%d,%d,%d] binn=%d \n", p->roi.srow,
           p->roi.erow, p->roi.scol, p->roi.ecol, p->roi.binning);
    return true;
}

void chip_calib_log(const chip_priv_t *p, const calib_result_t *c, uint32_t freq, const float *tcoef_mm)
{
    LOG_AS(4, "INF", p->family->name.mount,
           "[%s]Calib loaded [freq=%.1f]: DRNU: cb=%d, ib=%d, s_um/o_mm=%d/%d; TEMP[n=%d]: "
           "[%.2f,%.2f,%.2f,%.2f,%.2f]\n",
           freq / 1e6, c->blk.t_cal0, c->blk.t_cal1, c->slope_k, c->offset, c->tcoef_cnt, tcoef_mm[0],
           tcoef_mm[1], tcoef_mm[2], tcoef_mm[3], tcoef_mm[4]);
}

void chip_calib_log_none(const chip_priv_t *p, const calib_result_t *c, const char *caller)
{
    LOG_AS(4, "INF", caller, "[%s]No calib data : freq=%d. Use default scale_um/offset_mm = %d/%d\n",
           uint32_t{p->mod_freq0}, c->slope_k, c->offset);
}
