// The filter switchboard. What each filter does to a frame stands in imx_decode.cpp.
#include <algorithm>
#include <cstdio>

#include "drivers/common/dev_param.h"
#include "drivers/imx/imx_priv.h"
#include "log/log.h"

// Values of the first integration time that switch the device's own control of it.
static constexpr uint16_t AUTO_INTG_ON = 65535, AUTO_INTG_OFF = 65534;

static void _lens_cfg(imx_priv_t *p, uint8_t on)
{
    const tqcam_lens_calib_cfg_t cfg = {on, on, 0};
    tqcam_lens_calib_config_set(p->dev, &cfg);
}

// With a 240 the filters are fixed, whatever the frequency, and b sets their strength.
static void _denoise_enable(imx_priv_t *p, uint8_t a, uint8_t b)
{
    p->denoise_args[0] = 1;
    p->denoise_args[1] = a;
    p->denoise_args[2] = b;
    p->f_en_median = 1;
    p->f_en_bpf2d_iir = 1;
    p->f_en_fill_hole = 1;
    p->f_en_hysteresis = 0;
    if (a != 240)
        return;
    p->bpf.f_param_bpf_range_min = 0;
    p->bpf.f_param_bpf_range_max = 1024;
    p->bpf.f_param_bpf_sigma_spatial = b / 1000.0f;
    p->bpf.f_param_bpf_sigma_range = b > 49 ? static_cast<float>(b - 50) / 250.0f + 0.05f : 0.05f;
    if (b <= 50)
        p->f_en_median = 0;
    _filter_bpf_reload_parameter(&p->bpf, p->img_w, p->img_h, false);
}

static bool _hdr_enable(imx_priv_t *p, uint16_t intg1_us, uint16_t intg2_us)
{
    const tqcam_param_item_t items[] = {dev_param_item(TQCAM_PARAM_INTG1, &intg1_us, sizeof(intg1_us)),
                                        dev_param_item(TQCAM_PARAM_INTG2, &intg2_us, sizeof(intg2_us))};
    if (!tqcam_param_batch_set(p->dev, items, 2)) {
        LOG_AS(6, "ERR", "imx_filter_enable", "[%s]enable HDR failed\n");
        return false;
    }
    p->hdr_en = 1;
    return true;
}

static bool _hdr_disable(imx_priv_t *p)
{
    const uint16_t off = 0;
    if (!dev_param_set(p->dev, TQCAM_PARAM_INTG2, &off, sizeof(off))) {
        LOG_AS(6, "ERR", "imx_filter_disable", "[%s]disable HDR failed\n");
        return false;
    }
    p->hdr_en = 0;
    return true;
}

static bool _auto_intg_enable(imx_priv_t *p, uint16_t value)
{
    std::printf("\n\nenable auto intg");
    p->f_en_auto_intg = 1;
    p->auto_intg_value = value;
    p->hdr_en = 0;
    const uint16_t words[] = {AUTO_INTG_ON, value};
    if (dev_param_set(p->dev, TQCAM_PARAM_INTG1, words, sizeof(words)))
        return true;
    LOG_AS(6, "ERR", "imx_filter_enable", "[%s]enable AUTO_INTG failed\n");
    return false;
}

static bool _auto_intg_disable(imx_priv_t *p)
{
    p->f_en_auto_intg = 0;
    p->auto_intg_value = 0;
    LOG_AS(1, "DBG", "imx_filter_disable", "[%s]disable AUTO intg\n");
    return dev_param_set(p->dev, TQCAM_PARAM_INTG1, &AUTO_INTG_OFF, sizeof(AUTO_INTG_OFF));
}

static void _offset_enable(imx_priv_t *p, int16_t mm, uint16_t thousandths)
{
    const float scale = thousandths ? static_cast<float>(thousandths) / 1000.0f : 1.0f;
    if (p->user_offset != mm || p->user_scale != scale)
        LOG_AS(1, "DBG", "imx_filter_enable", "[%s]scale/offset_mm: %.3f/%d -> %.3f/%d\n",
               static_cast<double>(p->user_scale), int32_t{p->user_offset}, static_cast<double>(scale), mm);
    p->user_offset = mm;
    p->user_scale = scale;
    p->f_en_offset = 1;
}

static bool _pix_calib_enable(imx_priv_t *p)
{
    DrvLock lock(p->calib_lock);
    const bool ready = imx_calib_is_ready(p);
    if (ready)
        p->f_en_pix_calib = 1;
    LOG_AS(1, "DBG", "imx_filter_enable", "[%s]pix calib enabled\n");
    return ready;
}

static bool _enable(imx_priv_t *p, uint32_t filter_id, const tqcam_filter_arg_t *arg)
{
    switch (filter_id) {
    case TQCAM_FILTER_LENS:
        _lens_cfg(p, 1);
        return true;
    case TQCAM_FILTER_PIXEL_CALIB:
        return _pix_calib_enable(p);
    case TQCAM_FILTER_DENOISE:
        _denoise_enable(p, arg->denoise.a, arg->denoise.b);
        return true;
    case TQCAM_FILTER_MIN_AMP:
        p->min_amp = arg->value;
        p->f_en_minamp = 1;
        return true;
    case TQCAM_FILTER_AUTO_INTG:
        return _auto_intg_enable(p, arg->value);
    case TQCAM_FILTER_SYNC_CHECK:
        p->sync_delay = arg->value;
        p->f_en_sync_check = 1;
        return true;
    case TQCAM_FILTER_TEMP_MONITOR:
        p->temp_period = arg->value;
        p->f_en_temp_monitor = 1;
        return true;
    case TQCAM_FILTER_HDR:
        return _hdr_enable(p, arg->hdr.intg1_us, arg->hdr.intg2_us);
    case TQCAM_FILTER_OFFSET:
        _offset_enable(p, arg->offset.mm, arg->offset.scale);
        return true;
    case TQCAM_FILTER_FLY_PIXEL:
        p->f_param_flyfilter_th = std::min<uint32_t>(arg->mode, 31);
        p->f_en_flyfilter = 1;
        return true;
    case TQCAM_FILTER_TEMP_CORR:
        p->f_en_temp_corr = 1;
        return true;
    default: // system calibration and gray reference can't be had from this chip
        return false;
    }
}

bool imx_filter_enable(tqcam_drv_t *drv, uint32_t filter_id, const tqcam_filter_arg_t *arg)
{
    imx_priv_t *p = imx_priv(drv);
    const bool plain = filter_id == TQCAM_FILTER_LENS || filter_id == TQCAM_FILTER_PIXEL_CALIB ||
                       filter_id == TQCAM_FILTER_TEMP_CORR;
    if (!p || (!arg && !plain))
        return false;
    if (filter_id == TQCAM_FILTER_AUTO_INTG && p->f_en_auto_intg)
        return true; // the device runs it already
    const bool done = _enable(p, filter_id, arg);
    const bool write_failed = !done && (filter_id == TQCAM_FILTER_AUTO_INTG || filter_id == TQCAM_FILTER_HDR);
    if (!write_failed)
        tqtele_sync(p->tele, true);
    return done;
}

static bool _disable(imx_priv_t *p, uint32_t filter_id)
{
    switch (filter_id) {
    case TQCAM_FILTER_LENS:
        _lens_cfg(p, 0);
        return true;
    case TQCAM_FILTER_PIXEL_CALIB:
        p->f_en_pix_calib = 0;
        LOG_AS(1, "DBG", "imx_filter_disable", "[%s]pix calib disabled\n");
        return true;
    case TQCAM_FILTER_DENOISE:
        p->f_en_median = 0;
        p->denoise_args[0] = 0;
        p->f_en_hysteresis = 0;
        p->f_en_bpf2d_iir = 0;
        p->f_en_fill_hole = 0;
        return true;
    case TQCAM_FILTER_MIN_AMP: {
        p->f_en_minamp = 0;
        DrvLock lock(p->decode_lock);
        p->hyst_state.release();
        return true;
    }
    case TQCAM_FILTER_AUTO_INTG:
        return _auto_intg_disable(p);
    case TQCAM_FILTER_SYNC_CHECK:
        p->f_en_sync_check = 0;
        return true;
    case TQCAM_FILTER_TEMP_MONITOR:
        p->f_en_temp_monitor = 0;
        return true;
    case TQCAM_FILTER_HDR:
        return _hdr_disable(p);
    case TQCAM_FILTER_OFFSET:
        p->f_en_offset = 0;
        return true;
    case TQCAM_FILTER_SYS_CALIB:
        p->f_en_sys_calib = 0;
        return true;
    case TQCAM_FILTER_GRAY_REF:
        p->f_en_gray = 0;
        return true;
    case TQCAM_FILTER_FLY_PIXEL:
        p->f_en_flyfilter = 0;
        return true;
    case TQCAM_FILTER_TEMP_CORR:
        p->f_en_temp_corr = 0;
        return true;
    default:
        return false;
    }
}

bool imx_filter_disable(tqcam_drv_t *drv, uint32_t filter_id)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p)
        return false;
    if (filter_id == TQCAM_FILTER_AUTO_INTG && !p->f_en_auto_intg)
        return true;
    const bool done = _disable(p, filter_id);
    const bool write_failed = !done && (filter_id == TQCAM_FILTER_AUTO_INTG || filter_id == TQCAM_FILTER_HDR);
    if (!write_failed)
        tqtele_sync(p->tele, true);
    return done;
}
