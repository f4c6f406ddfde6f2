// The EPC family's table of operations, and how a device of it comes to life and goes.
#include "drivers/epc/epc_priv.h"

#include <cstdio>
#include <cstdlib>
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

static void _init_locks(epc_priv_t *p)
{
    if (!p->calib_lock.init() || !p->bpf.lock.init() || !p->decode_lock.init()) {
        LOG_AS(6, "ERR", "epc_init", "[%s]pthread_mutex_init failed\n");
        exit(-1);
    }
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

bool epc_init(tqcam_drv_t *drv, tqcam_dev_t *dev)
{
    drv->dev = dev;
    if (!_register_preamble(drv))
        return false;
    epc_priv_t *p = new (std::nothrow) epc_priv_t();
    if (!p) {
        LOG_ERROR("[%s]malloc failed\n");
        exit(-3);
    }
    p->dev = dev;
    p->older = epc_priv(drv);
    drv->priv = p;
    _init_locks(p);

    p->lens_from_file = lens_search(dev, &epc_lens_default, &p->lens_bin);
    const tqcam_lens_param_t lens = lens_default_get(&epc_lens_default);
    if (tq_calib_len_map_t *map = tq_priv_get_len_calib_handle(dev)) {
        tq_calib_len_init_map(map, &lens);
        p->mapped_lens = lens;
    }

    p->chip_variant = _read_variant(drv);
    _model_settings(p);
    const bool small = p->chip_variant == EPC_VARIANT_160X60;
    p->img_w = small ? 160 : 320;
    p->img_h = small ? 60 : 240;
    calib_result_reset(&p->calib);
    if (!p->gray_buf.need(small ? 160 * 60 * 2 : EPC_GRAY_BYTES)) {
        LOG_ERROR("[%s]malloc failed\n");
        exit(-3);
    }
    bilateral_make(&p->bpf, p->img_w, p->img_h, 0, 4096, 0.02f, 0.1f, __func__);
    dev_time_set(dev);
    return true;
}

// A row binds one device. Where a second one took it over, the first one's record goes here too: neither may
// use the row any more.
void epc_uninit(tqcam_drv_t *drv)
{
    while (epc_priv_t *p = epc_priv(drv)) {
        drv->priv = p->older;
        bilateral_free(&p->bpf);
        if (p->dev == drv->dev)
            tq_calib_len_uninit_map(tq_priv_get_len_calib_handle(p->dev));
        {
            DrvLock lock(p->calib_lock);
            p->f_en_gray = 0;
            p->gray_buf.release();
            tqcam_drv_t row = *drv;
            row.priv = p;
            epc_calc_unmount_clib(&row);
            calib_result_free(&p->calib);
        }
        p->calib_lock.destroy();
        p->bpf.lock.destroy();
        p->decode_lock.destroy();
        tqcam_param_len_unload(p->lens_bin);
        delete p;
    }
}

static int _no_use_cases(tqcam_drv_t *, tqcam_use_case_t *, uint8_t)
{
    return 0;
}
static int _reserved_a(tqcam_drv_t *, int, int)
{
    return 0;
}
static int _reserved_b(tqcam_drv_t *, int, int)
{
    return 1;
}

const tqcam_drv_ops_t epc_ops = {
    .init = epc_init,
    .uninit = epc_uninit,
    .frame_get_info = epc_frame_get_info,
    .frame_decode = epc_frame_decode,
    .frame_need_data = _feature_bfps_need_data,
    .frame_raw_proc = epc_frame_raw_proc,
    .lens_param_get = epc_lens_param_get,
    .lens_rec_get = epc_lens_rec_get,
    .calib_freq_get = epc_calib_freq_get,
    .use_case_list = _no_use_cases,
    .use_case_set = nullptr,
    .use_case_get = nullptr,
    .on_cap_state = epc_on_cap_state,
    .on_update_fps = epc_on_update_fps,
    .on_update_intg_time = epc_on_update_intg_time,
    .on_update_fmt = epc_on_update_fmt,
    .on_update_mod_freq = epc_on_update_mod_freq,
    .on_update_gray_div = epc_on_update_gray_div,
    .on_update_roi = epc_on_update_roi,
    .drv_calib_load = epc_calib_load,
    .reserved_a = _reserved_a,
    .reserved_b = _reserved_b,
    .filter_enable = epc_filter_enable,
    .filter_disable = epc_filter_disable,
};
