// The filter switchboard. What each filter does to a frame stands in epc_decode.cpp.
#include "drivers/epc/epc_priv.h"

#include <algorithm>
#include <cstdlib>

#include "drivers/common/dev_param.h"
#include "log/log.h"

static void _lens_cfg(epc_priv_t *p, uint8_t on)
{
    const tqcam_lens_calib_cfg_t cfg = {on, on, 0};
    tqcam_lens_calib_config_set(p->dev, &cfg);
}

// With a 240 the smoothing is the bilateral filter's, and b sets its strength.
static void _denoise_enable(epc_priv_t *p, uint8_t a, uint8_t b)
{
    p->denoise_args[0] = 1;
    p->denoise_args[1] = a;
    p->denoise_args[2] = b;
    p->f_en_denoise = 1;
    p->denoise_median = 1;
    p->f_en_bpf2d_iir = 1;
    if (a != 240)
        return;
    p->bpf.f_param_bpf_sigma_range = 0.05f;
    p->bpf.f_param_bpf_range_min = 0;
    p->bpf.f_param_bpf_range_max = 4096;
    p->bpf.f_param_bpf_sigma_spatial = b / 1000.0f;
    p->denoise_level = b > 66 ? 5 : b >= 11 ? 3 : 0;
    if (b < 11)
        p->denoise_median = 0;
    _filter_bpf_reload_parameter(&p->bpf, p->img_w, p->img_h, false);
}

static bool _hdr_enable(epc_priv_t *p, uint16_t intg1_us, uint16_t intg2_us)
{
    const tqcam_param_item_t items[] = {dev_param_item(TQCAM_PARAM_INTG1, &intg1_us, sizeof(intg1_us)),
                                        dev_param_item(TQCAM_PARAM_INTG2, &intg2_us, sizeof(intg2_us))};
    if (!tqcam_param_batch_set(p->dev, items, 2)) {
        LOG_AS(6, "ERR", "epc_filter_enable", "[%s]enable HDR failed\n");
        return false;
    }
    p->hdr_en = 1;
    p->hdr_intg = intg1_us;
    return true;
}

static bool _hdr_disable(epc_priv_t *p)
{
    const uint16_t off = 0;
    if (!dev_param_set(p->dev, TQCAM_PARAM_INTG2, &off, sizeof(off))) {
        LOG_AS(6, "ERR", "epc_filter_disable", "[%s]disable HDR failed\n");
        return false;
    }
    p->hdr_en = 0;
    p->hdr_intg = 0;
    return true;
}

// The device's answer to the format comes first, and with it the format event, which sets these words too.
static bool _sport_enable(epc_priv_t *p, uint8_t mode)
{
    static constexpr uint32_t FORMATS[] = {EPC_FMT_2DCS, EPC_FMT_1DCS, EPC_FMT_4DCS};
    LOG_AS(1, "DBG", "epc_filter_enable", "[%s]Enable sport mode: %d\n", mode);
    if (mode >= std::size(FORMATS)) {
        LOG_AS(6, "ERR", "epc_filter_enable", "[%s]wrong SPORT MODE: %d\n", mode);
        return false;
    }
    if (!dev_param_set_u32(p->dev, TQCAM_PARAM_FORMAT, FORMATS[mode])) {
        LOG_AS(6, "ERR", "epc_filter_enable", "[%s]enable SPORT MODE %d failed\n", mode ? 1 : 0);
        return false;
    }
    p->sport_en = 1;
    p->sport_mode = mode;
    return true;
}

static bool _sport_disable(epc_priv_t *p)
{
    if (!dev_param_set_u32(p->dev, TQCAM_PARAM_FORMAT, EPC_FMT_4DCS)) {
        LOG_AS(6, "ERR", "epc_filter_disable", "[%s]disable sport mode failed\n");
        return false;
    }
    p->sport_en = 0;
    LOG_AS(1, "DBG", "epc_filter_disable", "[%s]Disable sport mode\n");
    return true;
}

static bool _sys_calib_enable(epc_priv_t *p)
{
    LOG_AS(1, "DBG", "epc_filter_enable", "[%s]Enable sys calib\n");
    float scale, offset;
    if (!dev_sys_calib_get(p->dev, &scale, &offset)) {
        LOG_AS(6, "ERR", "epc_filter_enable", "[%s]Sys calib param not valid\n");
        return false;
    }
    p->f_en_sys_calib = 1;
    p->sys_scale = scale;
    p->sys_offset = offset;
    return true;
}

static bool _gray_ref_enable(epc_priv_t *p, uint16_t divisor)
{
    DrvLock lock(p->calib_lock);
    if (!p->gray_buf.data && !p->gray_buf.need(EPC_GRAY_BYTES)) {
        LOG_AS(6, "ERR", "epc_filter_enable", "[%s]malloc failed\n");
        return false;
    }
    p->f_en_gray = 1;
    p->gray_div = divisor ? divisor : 1;
    return true;
}

static void _offset_enable(epc_priv_t *p, int16_t mm)
{
    p->f_en_offset = 1;
    if (p->user_offset != mm)
        LOG_AS(1, "DBG", "epc_filter_enable", "[%s]offset_mm: %d -> %d\n", int32_t{p->user_offset}, mm);
    p->user_offset = mm;
}

static bool _pix_calib_enable(epc_priv_t *p)
{
    p->f_en_pix_calib = 1;
    LOG_AS(1, "DBG", "epc_filter_enable", "[%s]pix calib enabled\n");
    if (p->sport_en && p->sport_mode)
        return false;
    DrvLock lock(p->calib_lock);
    return epc_calib_is_ready(p);
}

// These take an argument.
static bool _needs_arg(uint32_t filter_id)
{
    switch (filter_id) {
    case TQCAM_FILTER_LENS:
    case TQCAM_FILTER_PIXEL_CALIB:
    case TQCAM_FILTER_SYS_CALIB:
    case TQCAM_FILTER_TEMP_CORR:
        return false;
    default:
        return true;
    }
}

bool epc_filter_enable(tqcam_drv_t *drv, uint32_t filter_id, const tqcam_filter_arg_t *arg)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p || (!arg && _needs_arg(filter_id)))
        return false;
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
        p->auto_intg_ratio = arg->value;
        p->f_en_auto_intg = 1;
        return true;
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
        _offset_enable(p, arg->offset.mm);
        return true;
    case TQCAM_FILTER_SPORT:
        return _sport_enable(p, arg->mode);
    case TQCAM_FILTER_SYS_CALIB:
        return _sys_calib_enable(p);
    case TQCAM_FILTER_GRAY_REF:
        return _gray_ref_enable(p, arg->value);
    case TQCAM_FILTER_FLY_PIXEL:
        p->f_param_flyfilter_th = std::min<uint8_t>(arg->mode, 31);
        p->f_en_flyfilter = 1;
        return true;
    case TQCAM_FILTER_TEMP_CORR:
        p->f_en_temp_corr = 1;
        return true;
    default:
        return false;
    }
}

bool epc_filter_disable(tqcam_drv_t *drv, uint32_t filter_id)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p)
        return false;
    switch (filter_id) {
    case TQCAM_FILTER_LENS:
        _lens_cfg(p, 0);
        return true;
    case TQCAM_FILTER_PIXEL_CALIB:
        p->f_en_pix_calib = 0;
        LOG_DEBUG("[%s]pix calib disabled\n");
        return true;
    case TQCAM_FILTER_DENOISE:
        p->f_en_denoise = 0;
        p->denoise_args[0] = 0;
        p->denoise_median = 0;
        p->f_en_bpf2d_iir = 0;
        return true;
    case TQCAM_FILTER_MIN_AMP: {
        p->f_en_minamp = 0;
        DrvLock lock(p->decode_lock);
        p->hyst_state.release();
        return true;
    }
    case TQCAM_FILTER_AUTO_INTG:
        p->f_en_auto_intg = 0;
        p->auto_intg_ratio = 0;
        return true;
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
    case TQCAM_FILTER_SPORT:
        return _sport_disable(p);
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
