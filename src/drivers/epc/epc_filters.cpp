// The filter switchboard. What each filter does to a frame stands in epc_decode.cpp.
#include "drivers/epc/epc_priv.h"

#include <iterator>

#include "drivers/common/dev_param.h"
#include "log/log.h"

static void _denoise_enable(epc_priv_t *p, uint8_t a, uint8_t b)
{
    const bool fixed = chip_denoise_enable(p, a, b);
    p->f_en_denoise = 1;
    p->denoise_median = 1;
    if (!fixed)
        return;
    p->denoise_level = b > 66 ? 5 : b >= 11 ? 3 : 0;
    if (b < 11)
        p->denoise_median = 0;
    chip_denoise_fix(p, 4096, b / 1000.0f, 0.05f);
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

bool epc_filter_enable(tqcam_drv_t *drv, uint32_t filter_id, const tqcam_filter_arg_t *arg)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p || (!arg && chip_filter_needs_arg(filter_id)))
        return false;
    switch (filter_id) {
    case TQCAM_FILTER_PIXEL_CALIB:
        return _pix_calib_enable(p);
    case TQCAM_FILTER_DENOISE:
        _denoise_enable(p, arg->denoise.a, arg->denoise.b);
        return true;
    case TQCAM_FILTER_AUTO_INTG:
        p->auto_intg_ratio = arg->value;
        p->f_en_auto_intg = 1;
        return true;
    case TQCAM_FILTER_HDR:
        if (!chip_filter_enable(p, filter_id, arg))
            return false;
        p->hdr_intg = arg->hdr.intg1_us;
        return true;
    case TQCAM_FILTER_OFFSET:
        _offset_enable(p, arg->offset.mm);
        return true;
    case TQCAM_FILTER_SPORT:
        return _sport_enable(p, arg->mode);
    case TQCAM_FILTER_SYS_CALIB:
        return _sys_calib_enable(p);
    case TQCAM_FILTER_GRAY_REF:
        return _gray_ref_enable(p, arg->value);
    default:
        return chip_filter_enable(p, filter_id, arg);
    }
}

bool epc_filter_disable(tqcam_drv_t *drv, uint32_t filter_id)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p)
        return false;
    switch (filter_id) {
    case TQCAM_FILTER_DENOISE:
        p->f_en_denoise = 0;
        p->denoise_args[0] = 0;
        p->denoise_median = 0;
        p->f_en_bpf2d_iir = 0;
        return true;
    case TQCAM_FILTER_AUTO_INTG:
        p->f_en_auto_intg = 0;
        p->auto_intg_ratio = 0;
        return true;
    case TQCAM_FILTER_HDR:
        if (!chip_filter_disable(p, filter_id))
            return false;
        p->hdr_intg = 0;
        return true;
    case TQCAM_FILTER_SPORT:
        return _sport_disable(p);
    default:
        return chip_filter_disable(p, filter_id);
    }
}
