// The filter switchboard. What each filter does to a frame stands in imx_decode.cpp.
#include <cstdio>

#include "drivers/common/dev_param.h"
#include "drivers/imx/imx_priv.h"
#include "log/log.h"

// Values of the first integration time that switch the device's own control of it.
static constexpr uint16_t AUTO_INTG_ON = 65535, AUTO_INTG_OFF = 65534;

static void _denoise_enable(imx_priv_t *p, uint8_t a, uint8_t b)
{
    const bool fixed = chip_denoise_enable(p, a, b);
    p->f_en_median = 1;
    p->f_en_fill_hole = 1;
    p->f_en_hysteresis = 0;
    if (!fixed)
        return;
    if (b <= 50)
        p->f_en_median = 0;
    const float sigma_range = b > 49 ? static_cast<float>(b - 50) / 250.0f + 0.05f : 0.05f;
    chip_denoise_fix(p, 1024, b / 1000.0f, sigma_range);
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
    case TQCAM_FILTER_PIXEL_CALIB:
        return _pix_calib_enable(p);
    case TQCAM_FILTER_DENOISE:
        _denoise_enable(p, arg->denoise.a, arg->denoise.b);
        return true;
    case TQCAM_FILTER_AUTO_INTG:
        return _auto_intg_enable(p, arg->value);
    case TQCAM_FILTER_OFFSET:
        _offset_enable(p, arg->offset.mm, arg->offset.scale);
        return true;
    default: // system calibration and gray reference can't be had from this chip
        return chip_filter_enable(p, filter_id, arg);
    }
}

static bool _disable(imx_priv_t *p, uint32_t filter_id)
{
    switch (filter_id) {
    case TQCAM_FILTER_DENOISE:
        p->f_en_median = 0;
        p->denoise_args[0] = 0;
        p->f_en_hysteresis = 0;
        p->f_en_bpf2d_iir = 0;
        p->f_en_fill_hole = 0;
        return true;
    case TQCAM_FILTER_AUTO_INTG:
        return _auto_intg_disable(p);
    default:
        return chip_filter_disable(p, filter_id);
    }
}

// Whatever came of it is told, but for a device that refused.
static bool _tell(imx_priv_t *p, uint32_t filter_id, bool done)
{
    if (done || (filter_id != TQCAM_FILTER_AUTO_INTG && filter_id != TQCAM_FILTER_HDR))
        tqtele_sync(p->tele, true);
    return done;
}

bool imx_filter_enable(tqcam_drv_t *drv, uint32_t filter_id, const tqcam_filter_arg_t *arg)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p || (!arg && chip_filter_needs_arg(filter_id)))
        return false;
    if (filter_id == TQCAM_FILTER_AUTO_INTG && p->f_en_auto_intg)
        return true; // the device runs it already
    return _tell(p, filter_id, _enable(p, filter_id, arg));
}

bool imx_filter_disable(tqcam_drv_t *drv, uint32_t filter_id)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p)
        return false;
    if (filter_id == TQCAM_FILTER_AUTO_INTG && !p->f_en_auto_intg)
        return true;
    return _tell(p, filter_id, _disable(p, filter_id));
}
