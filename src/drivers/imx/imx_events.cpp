// What the driver does when a parameter changed.
#include "drivers/common/dev_param.h"
#include "drivers/imx/imx_priv.h"
#include "log/log.h"

// Under one lock: a decode meets frequencies, ranges and calibrations that belong together.
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
    imx_calc_unmount_calib(p);
    p->mod_freq0 = f0;
    p->mod_freq1 = f1;
    imx_calc_mount_calib(p);
    tqcam_lens_param_t lens;
    chip_lens_update(p, &lens);
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
    chip_sys_calib_refresh(p);
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
        chip_sys_calib_refresh(p);
}

void imx_on_update_roi(tqcam_drv_t *drv, const uint8_t *value)
{
    if (imx_priv_t *p = imx_priv(drv))
        chip_update_roi(p, value, false);
}
