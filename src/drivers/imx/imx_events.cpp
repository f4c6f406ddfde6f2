// What the driver does when a parameter changed.
#include <cstring>

#include "drivers/common/dev_param.h"
#include "drivers/common/phase.h"
#include "drivers/common/roi_event.h"
#include "drivers/imx/imx_priv.h"
#include "log/log.h"

static void _refresh_sys_calib(imx_priv_t *p)
{
    float scale, offset;
    if (!dev_sys_calib_get(p->dev, &scale, &offset))
        return;
    p->sys_scale = scale;
    p->sys_offset = offset;
}

// Under one lock: a decode meets frequencies, ranges and calibrations that belong together.
static void _mount(tqcam_drv_t *drv)
{
    imx_priv_t *p = imx_priv(drv);
    if (p->mod_freq1)
        imx_calc_mount_calib_ex(drv, 1);
    else
        imx_calc_mount_calib(drv);
    p->dmax0 = range_of(p->mod_freq0); // with frequency 0, the calibration's
    p->dmax1 = range_of(p->mod_freq1); // 0 for one frequency: a frame of two can't be unwrapped then
    if (!p->mod_freq1)
        p->dmax = p->dmax0;
}

void imx_event_freq_change(tqcam_drv_t *drv, uint32_t f0, uint32_t f1)
{
    imx_priv_t *p = imx_priv(drv);
    DrvLock lock(p->calib_lock);
    const bool same = f0 == p->mod_freq0 && f1 == p->mod_freq1;
    if (same && p->calib_mounted)
        return;
    if (same)
        LOG_DEBUG("[%s]MOD_FREQ [%d, %d] HZ: try loading calib data\n", f0, f1);
    else
        LOG_DEBUG("[%s]MOD_FREQ change: [%d, %d] -> [%d, %d] HZ\n", uint32_t{p->mod_freq0},
                  uint32_t{p->mod_freq1}, f0, f1);
    imx_calc_unmount_calib(drv);
    p->mod_freq0 = f0;
    p->mod_freq1 = f1;
    _mount(drv);
    tqcam_lens_param_t lens;
    imx_lens_update(drv, &lens);
    p->f_en_pix_calib = p->calib_mounted;
}

// A short wave measures finer and needs less smoothing: settings by frequency, from this one up.
struct freq_filter_t {
    uint32_t mhz, flyfilter_th;
    float sigma_spatial, sigma_range;
};
static constexpr freq_filter_t FREQ_FILTERS[] = {
    {120, 2, 0.01f, 0.05f}, {100, 2, 0.01f, 0.05f}, {80, 3, 0.02f, 0.05f}, {50, 3, 0.04f, 0.05f},
    {30, 4, 0.06f, 0.05f},  {24, 4, 0.08f, 0.05f},  {20, 10, 0.1f, 0.05f}, {12, 10, 0.2f, 0.05f},
};

void imx_on_update_mod_freq(tqcam_drv_t *drv, uint32_t f0, uint32_t f1, uint32_t)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p)
        return;
    if (f0) {
        imx_event_freq_change(drv, f0, f1);
        p->dual_freq = f1 != 0;
    }
    const bool fixed = p->denoise_args[0] && p->denoise_args[1] == 240;
    if (!fixed) {
        p->f_param_flyfilter_th = 0;
        for (const freq_filter_t &row : FREQ_FILTERS) {
            if (f0 / 1000000 < row.mhz)
                continue;
            p->f_param_flyfilter_th = row.flyfilter_th;
            p->bpf.f_param_bpf_sigma_spatial = row.sigma_spatial;
            p->bpf.f_param_bpf_sigma_range = row.sigma_range;
            break;
        }
        LOG_DEBUG("[%s]FLYF  : threshold=%u\n", uint32_t{p->f_param_flyfilter_th});
        LOG_DEBUG("[%s]BPF   : sigma range=%f, sigma spatial=%f\n",
                  static_cast<double>(p->bpf.f_param_bpf_sigma_range),
                  static_cast<double>(p->bpf.f_param_bpf_sigma_spatial));
        tqtele_sync(p->tele, true);
    }
    _refresh_sys_calib(p);
}

// Changes the frame format because of the second integration time.
static void _auto_format(imx_priv_t *p, uint32_t from, uint32_t to)
{
    LOG_AS(1, "DBG", "imx_on_update_intg_time", "[%s]fmt auto change: %d->%d\n", from, to);
    if (!dev_param_set_u32(p->dev, TQCAM_PARAM_FORMAT, to))
        LOG_AS(6, "ERR", "imx_on_update_intg_time", "[%s]set to fmt %d failed\n", to);
}

void imx_on_update_intg_time(tqcam_drv_t *drv, uint32_t us, int index)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p)
        return;
    const uint32_t format = tq_priv_get_fmt(p->dev);
    if (!index) {
        if (us != 65535)
            p->intg_us = us;
    } else if (us) {
        p->hdr_en = 1;
        if (format != IMX_FMT_HDR) {
            p->saved_fmt = static_cast<int32_t>(format);
            _auto_format(p, format, IMX_FMT_HDR);
        }
    } else {
        const int32_t saved = p->saved_fmt;
        p->hdr_en = 0;
        p->saved_fmt = -1;
        if (saved > 0 && static_cast<uint32_t>(saved) != format)
            _auto_format(p, format, static_cast<uint32_t>(saved));
    }
    LOG_DEBUG("[%s]intg%d: %d, hdr_en=%d\n", index, us, uint8_t{p->hdr_en});
}

void imx_on_update_fmt(tqcam_drv_t *drv, uint32_t)
{
    if (imx_priv_t *p = imx_priv(drv))
        _refresh_sys_calib(p);
}

void imx_on_update_fps(tqcam_drv_t *drv, uint32_t fps)
{
    if (imx_priv_t *p = imx_priv(drv))
        frame_rate_set(&p->rate, fps);
}

void imx_on_update_gray_div(tqcam_drv_t *drv, uint16_t value)
{
    if (imx_priv_t *p = imx_priv(drv))
        p->gray_div = value ? value : 1;
}

void imx_on_cap_state(tqcam_drv_t *drv, int started)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p || started)
        return;
    temp_restart(&p->temp);
    p->rate.mark_ms = 0;
}

// Frames show the region, binned. Nothing else has to change when that is what was there before.
void imx_on_update_roi(tqcam_drv_t *drv, const uint8_t *value)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p)
        return;
    calib_roi_t roi;
    std::memcpy(&roi, value, sizeof(roi));
    uint32_t w = p->img_w, h = p->img_h;
    bool whole = false;
    roi_frame_t frame = {w, h, whole};
    roi_frame_of(roi, IMX_SENSOR_W, IMX_SENSOR_H, &frame, __func__);
    w = frame.w;
    h = frame.h;
    whole = frame.whole;
    tqcam_lens_param_t lens = {};
    {
        DrvLock lock(p->calib_lock);
        p->roi = roi;
        const bool ready = imx_calib_is_ready(p);
        if (whole && w == p->img_w && h == p->img_h && (ready || !p->calib_mounted)) {
            LOG_DEBUG("[%s] roi updated: %ux%u @ (%u, %u), binning=%u\n", w, h, roi.scol, roi.srow,
                      roi.binning);
            return;
        }
        p->img_w = w;
        p->img_h = h;
        if (!ready) {
            imx_calc_unmount_calib(drv);
            _mount(drv);
        }
        imx_lens_update(drv, &lens);
    }
    _filter_bpf_reload_parameter(&p->bpf, w, h, true);
    LOG_DEBUG("[%s] roi updated: %ux%u @ (%u, %u), binning=%u, len=[%f,%f,%f,%f]\n", w, h, roi.scol, roi.srow,
              roi.binning, lens.cx, lens.cy, lens.fx, lens.fy);
}
