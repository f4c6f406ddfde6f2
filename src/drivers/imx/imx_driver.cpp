// The SONY family's table of operations, and how a device of it comes to life and goes.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "drivers/common/dev_param.h"
#include "drivers/imx/imx_priv.h"
#include "log/log.h"

// An IMX570 says so in the first field of its product string, or by "S<n>C<n>" in the second.
static bool _is_imx570(const tqcam_dev_t *dev)
{
    char product[sizeof(dev->product) + 1] = {};
    std::memcpy(product, dev->product, sizeof(dev->product));
    int s, c;
    return !std::strncmp(product, "IMX570-", 7) || std::sscanf(product, "%*32[^-]-S%dC%d-", &s, &c) == 2;
}

// The lens that the device itself stores, in three pieces; it is logged alone.
static void _log_dev_lens(tqcam_dev_t *dev)
{
    constexpr size_t PIECE = 16;
    tqcam_param_item_t items[3] = {};
    for (int i = 0; i < 3; i++) {
        constexpr uint8_t ids[] = {22, 86, 87};
        items[i].param_id = ids[i];
        items[i].param_len = PIECE;
    }
    if (!tqcam_param_batch_get(dev, items, 3))
        return;
    uint8_t bytes[3 * PIECE];
    for (size_t i = 0; i < 3; i++)
        std::memcpy(bytes + PIECE * i, items[i].value, PIECE);
    float v[9]; // cx, cy, fx, fy, five distortion values
    std::memcpy(v, bytes, sizeof(v));
    if (v[2] != 0 && v[3] != 0)
        LOG_AS(1, "DBG", "imx_init",
               "[%s]len param in dev: cx:%f, cy:%f, fx:%f, fy:%f, d0:%f, d1:%f, d2:%f, d3:%f ,d4:%f\n", v[0],
               v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8]);
}

static void _fill_tele_table(imx_priv_t *p)
{
    const tqtele_var_t table[IMX_TELE_VARS] = {
        {"f_en_hysteresis", TQTELE_U8, &p->f_en_hysteresis},
        {"f_param_hysteresis", TQTELE_U16, &p->f_param_hysteresis},
        {"f_en_flyfilter", TQTELE_U8, &p->f_en_flyfilter},
        {"f_param_flyfilter_th", TQTELE_U32, &p->f_param_flyfilter_th},
        {"f_en_fill_hole", TQTELE_U8, &p->f_en_fill_hole},
        {"f_en_bpf2d_iir", TQTELE_U8, &p->f_en_bpf2d_iir},
        {"f_param_bpf_sigma_spatial", TQTELE_F32, &p->bpf.f_param_bpf_sigma_spatial},
        {"f_param_bpf_sigma_range", TQTELE_F32, &p->bpf.f_param_bpf_sigma_range},
        {"f_param_bpf_range_min", TQTELE_U16, &p->bpf.f_param_bpf_range_min},
        {"f_param_bpf_range_max", TQTELE_U16, &p->bpf.f_param_bpf_range_max},
        {"f_en_gaus_iir", TQTELE_U8, &p->f_en_gaus_iir},
        {"f_param_gaus_iir_sigma", TQTELE_F32, &p->f_param_gaus_iir_sigma},
    };
    std::memcpy(p->tele_table, table, sizeof(table));
}

bool imx_init(tqcam_drv_t *drv, tqcam_dev_t *dev)
{
    drv->dev = dev;
    imx_priv_t *p = new (std::nothrow) imx_priv_t();
    if (!p) {
        LOG_ERROR("[%s]malloc failed\n");
        std::exit(-3);
    }
    p->dev = dev;
    p->older = imx_priv(drv);
    drv->priv = p;
    if (!p->calib_lock.init() || !p->bpf.lock.init() || !p->decode_lock.init()) {
        LOG_ERROR("[%s]pthread_mutex_init failed\n");
        std::exit(-1);
    }

    p->lens_from_file = lens_search(dev, &imx_lens_default, &p->lens_bin);
    const tqcam_lens_param_t lens = lens_default_get(&imx_lens_default);
    if (tq_calib_len_map_t *map = tq_priv_get_len_calib_handle(dev)) {
        tq_calib_len_init_map(map, &lens);
        p->mapped_lens = lens;
    }
    _fill_tele_table(p);
    p->tele = tqtele_register(p->tele_table, IMX_TELE_VARS);
    p->is_imx570 = _is_imx570(dev);
    if (p->is_imx570)
        LOG_DEBUG("[%s] * Temp-ceof dependent on freq mode: Enabled\n");
    _log_dev_lens(dev);
    imx_use_cases_init(p);
    for (imx_row_t &row : p->rows)
        calib_result_reset(&row.calib);
    if (!p->gray_buf.need(IMX_GRAY_BYTES)) {
        LOG_ERROR("[%s]malloc failed\n");
        std::exit(-3);
    }
    p->bpf.f_param_bpf_sigma_spatial = 0.01f;
    p->bpf.f_param_bpf_sigma_range = 0.02f;
    p->bpf.f_param_bpf_range_min = 0;
    p->bpf.f_param_bpf_range_max = 256;
    bilateral_make(&p->bpf, p->img_w, p->img_h, 0, 256, 0.01f, 0.02f, __func__);
    dev_time_set(dev);
    return true;
}

// Where a second device took the row over, the first one's record goes here too: neither may use the row any
// more.
void imx_uninit(tqcam_drv_t *drv)
{
    while (imx_priv_t *p = imx_priv(drv)) {
        drv->priv = p->older;
        tqtele_unregister(p->tele);
        bilateral_free(&p->bpf);
        if (p->dev == drv->dev)
            tq_calib_len_uninit_map(tq_priv_get_len_calib_handle(p->dev));
        {
            DrvLock lock(p->calib_lock);
            p->f_en_gray = 0;
            p->gray_buf.release();
            tqcam_drv_t row = *drv;
            row.priv = p;
            imx_calc_unmount_calib(&row);
        }
        p->calib_lock.destroy();
        p->bpf.lock.destroy();
        p->decode_lock.destroy();
        tqcam_param_len_unload(p->lens_bin);
        delete p;
    }
}

static int _reserved_a(tqcam_drv_t *, int, int)
{
    return 0;
}
static int _reserved_b(tqcam_drv_t *, int, int)
{
    return 1;
}

const tqcam_drv_ops_t imx_ops = {
    .init = imx_init,
    .uninit = imx_uninit,
    .frame_get_info = imx_frame_get_info,
    .frame_decode = imx_frame_decode,
    .frame_need_data = imx_frame_need_data,
    .frame_raw_proc = imx_frame_raw_proc,
    .lens_param_get = imx_lens_param_get,
    .lens_rec_get = imx_lens_rec_get,
    .calib_freq_get = imx_calib_freq_get,
    .use_case_list = imx_use_case_list,
    .use_case_set = imx_use_case_set,
    .use_case_get = imx_use_case_get,
    .on_cap_state = imx_on_cap_state,
    .on_update_fps = imx_on_update_fps,
    .on_update_intg_time = imx_on_update_intg_time,
    .on_update_fmt = imx_on_update_fmt,
    .on_update_mod_freq = imx_on_update_mod_freq,
    .on_update_gray_div = imx_on_update_gray_div,
    .on_update_roi = imx_on_update_roi,
    .drv_calib_load = imx_calib_load,
    .reserved_a = _reserved_a,
    .reserved_b = _reserved_b,
    .filter_enable = imx_filter_enable,
    .filter_disable = imx_filter_disable,
};
