// The EPC family's table of operations, and how a device of it comes to life and goes.
#include "drivers/epc/epc_priv.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "drivers/common/dev_param.h"
#include "log/log.h"

enum { EPC_REG_TARGET = 1 };

static int _epc_reg_rw(tqcam_drv_t *drv, char op, uint32_t addr, int count, uint32_t *buf)
{
    bool ok = false;
    if (op == 'w')
        ok = tqcam_reg_batch_write(drv->dev, EPC_REG_TARGET, addr, buf, count);
    else if (op == 'r')
        ok = tqcam_reg_batch_read(drv->dev, EPC_REG_TARGET, addr, buf, count);
    else
        return -1;
    if (!ok) {
        LOG_ERROR("[%s]reg write fail!\n");
        return -1;
    }
    return 0;
}

static bool _register_preamble(tqcam_drv_t *drv)
{
    uint32_t mode = 2, zeros[3] = {}, drive = 4;
    if (_epc_reg_rw(drv, 'w', 139, 1, &mode) || _epc_reg_rw(drv, 'w', 113, 3, zeros) ||
        _epc_reg_rw(drv, 'w', 174, 1, &drive))
        return false;
    for (const uint32_t addr : {34u, 37u, 40u, 43u}) {
        uint32_t value = 0;
        if (_epc_reg_rw(drv, 'r', addr, 1, &value))
            return false;
        value |= 48;
        if (_epc_reg_rw(drv, 'w', addr, 1, &value))
            return false;
    }
    return true;
}

static uint32_t _read_variant(tqcam_drv_t *drv)
{
    uint32_t page = 250, variant = 0;
    if (_epc_reg_rw(drv, 'w', 17, 1, &page) || _epc_reg_rw(drv, 'r', 18, 1, &variant))
        return 0;
    return variant;
}

// The chip word tells two models apart that the register doesn't.
static void _model_settings(epc_priv_t *p)
{
    char product[sizeof(p->dev->product) + 1] = {};
    memcpy(product, p->dev->product, sizeof(p->dev->product));
    char maker[17], model[17], rest[17];
    if (sscanf(product, "%16[^-]-%16[^-]-%16[^-]", maker, model, rest) != 3)
        return;
    if (!strcmp(model, "E3")) {
        p->bfps.bfps_en = 1;
        LOG_AS(1, "DBG", "epc_init", "[%s]bfps enabled for model: %s-%s\n", maker, model);
    } else if (!strcmp(model, "E5")) {
        p->chip_variant = EPC_VARIANT_160X60;
    }
}

// The device runs at one frequency.
static bool _read_freq(chip_priv_t *p, uint32_t freq[2])
{
    return dev_param_get(p->dev, TQCAM_PARAM_MOD_FREQ, freq, sizeof(*freq));
}

static void _release(chip_priv_t *p)
{
    delete static_cast<epc_priv_t *>(p);
}

// A 70 degree lens without distortion.
lens_default_t epc_lens_default = {{}, {160, 120, 230, 230, {}, 0, 320, 240}};

static const chip_family_t EPC_FAMILY = {
    .name = {.init = "epc_init",
             .calib_load = "epc_calib_load",
             .mount = "epc_calc_mount_calib",
             .update_roi = "epc_on_update_roi",
             .lens_param_get = "epc_lens_param_get",
             .filter_enable = "epc_filter_enable",
             .filter_disable = "epc_filter_disable",
             .frame_get_info = "epc_frame_get_info",
             .frame_raw_proc = "epc_frame_raw_proc"},
    .sensor_w = 320,
    .sensor_h = 240,
    .fallback_freq = 12000000,
    .temp_limits = {900, 600},
    .lens = &epc_lens_default,
    .read_freq = _read_freq,
    .freq_change = epc_event_freq_change,
    .calib_is_ready = epc_calib_is_ready,
    .mount = epc_calc_mount_calib,
    .unmount = epc_calc_unmount_clib,
    .release = _release,
};

static bool _init(tqcam_drv_t *drv, tqcam_dev_t *dev)
{
    drv->dev = dev;
    if (!_register_preamble(drv))
        return false;
    epc_priv_t *p = new (std::nothrow) epc_priv_t();
    chip_open(drv, dev, &EPC_FAMILY, p);
    p->chip_variant = _read_variant(drv);
    _model_settings(p);
    const bool small = p->chip_variant == EPC_VARIANT_160X60;
    p->img_w = small ? 160 : 320;
    p->img_h = small ? 60 : 240;
    calib_result_reset(&p->calib);
    chip_open_end(p, small ? 160 * 60 * 2 : EPC_GRAY_BYTES, 4096, 0.02f, 0.1f);
    return true;
}

static int _no_use_cases(tqcam_drv_t *, tqcam_use_case_t *, uint8_t)
{
    return 0;
}

const tqcam_drv_ops_t epc_ops = {
    .init = _init,
    .uninit = chip_uninit,
    .frame_get_info = epc_frame_get_info,
    .frame_decode = epc_frame_decode,
    .frame_need_data = _feature_bfps_need_data,
    .frame_raw_proc = epc_frame_raw_proc,
    .lens_param_get = chip_lens_param_get,
    .lens_rec_get = chip_lens_rec_get,
    .calib_freq_get = chip_calib_freq_get,
    .use_case_list = _no_use_cases,
    .use_case_set = nullptr,
    .use_case_get = nullptr,
    .on_cap_state = chip_on_cap_state,
    .on_update_fps = chip_on_update_fps,
    .on_update_intg_time = epc_on_update_intg_time,
    .on_update_fmt = epc_on_update_fmt,
    .on_update_mod_freq = epc_on_update_mod_freq,
    .on_update_gray_div = chip_on_update_gray_div,
    .on_update_roi = epc_on_update_roi,
    .drv_calib_load = chip_calib_load,
    .reserved_a = chip_reserved_a,
    .reserved_b = chip_reserved_b,
    .filter_enable = epc_filter_enable,
    .filter_disable = epc_filter_disable,
};
