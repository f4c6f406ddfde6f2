// The part of the filter switchboard that is the same for all families. What each filter does to a frame
// stands in the families' decode files.
#include <algorithm>

#include "drivers/common/chip.h"
#include "drivers/common/dev_param.h"
#include "log/log.h"

static bool _lens_cfg(chip_priv_t *p, uint8_t on)
{
    const tqcam_lens_calib_cfg_t cfg = {on, on, 0};
    tqcam_lens_calib_config_set(p->dev, &cfg);
    return true;
}

static bool _hdr_enable(chip_priv_t *p, uint16_t intg1_us, uint16_t intg2_us)
{
    const tqcam_param_item_t items[] = {dev_param_item(TQCAM_PARAM_INTG1, &intg1_us, sizeof(intg1_us)),
                                        dev_param_item(TQCAM_PARAM_INTG2, &intg2_us, sizeof(intg2_us))};
    if (!tqcam_param_batch_set(p->dev, items, 2)) {
        LOG_AS(6, "ERR", p->family->name.filter_enable, "[%s]enable HDR failed\n");
        return false;
    }
    p->hdr_en = 1;
    return true;
}

static bool _hdr_disable(chip_priv_t *p)
{
    const uint16_t off = 0;
    if (!dev_param_set(p->dev, TQCAM_PARAM_INTG2, &off, sizeof(off))) {
        LOG_AS(6, "ERR", p->family->name.filter_disable, "[%s]disable HDR failed\n");
        return false;
    }
    p->hdr_en = 0;
    return true;
}

bool chip_filter_needs_arg(uint32_t filter_id)
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

bool chip_filter_enable(chip_priv_t *p, uint32_t filter_id, const tqcam_filter_arg_t *arg)
{
    switch (filter_id) {
    case TQCAM_FILTER_LENS:
        return _lens_cfg(p, 1);
    case TQCAM_FILTER_MIN_AMP:
        p->min_amp = arg->value;
        p->f_en_minamp = 1;
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
    case TQCAM_FILTER_FLY_PIXEL:
        p->f_param_flyfilter_th = std::min<uint32_t>(arg->mode, 31);
        p->f_en_flyfilter = 1;
        return true;
    case TQCAM_FILTER_TEMP_CORR:
        p->f_en_temp_corr = 1;
        return true;
    default:
        return false;
    }
}

bool chip_filter_disable(chip_priv_t *p, uint32_t filter_id)
{
    switch (filter_id) {
    case TQCAM_FILTER_LENS:
        return _lens_cfg(p, 0);
    case TQCAM_FILTER_PIXEL_CALIB:
        p->f_en_pix_calib = 0;
        LOG_AS(1, "DBG", p->family->name.filter_disable, "[%s]pix calib disabled\n");
        return true;
    case TQCAM_FILTER_MIN_AMP: {
        p->f_en_minamp = 0;
        DrvLock lock(p->decode_lock);
        p->hyst_state.release();
        return true;
    }
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

bool chip_denoise_enable(chip_priv_t *p, uint8_t a, uint8_t b)
{
    p->denoise_args[0] = 1;
    p->denoise_args[1] = a;
    p->denoise_args[2] = b;
    p->f_en_bpf2d_iir = 1;
    return a == 240;
}

void chip_denoise_fix(chip_priv_t *p, uint16_t range_max, float sigma_spatial, float sigma_range)
{
    p->bpf.f_param_bpf_range_min = 0;
    p->bpf.f_param_bpf_range_max = range_max;
    p->bpf.f_param_bpf_sigma_spatial = sigma_spatial;
    p->bpf.f_param_bpf_sigma_range = sigma_range;
    _filter_bpf_reload_parameter(&p->bpf, p->img_w, p->img_h, false);
}
