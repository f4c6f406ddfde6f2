// The SONY family's table of operations, and how a device of it comes to life and goes.
#include <cstdio>
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

// Does the device send frames of two frequencies?
static bool _runs_dual(chip_priv_t *p)
{
    uint32_t format = 0;
    if (!dev_param_get(p->dev, TQCAM_PARAM_FORMAT, &format, sizeof(format)))
        return false;
    const uint32_t code = format & 127;
    return code == IMX_FMT_IQ_DUAL || code == IMX_FMT_PACKED_DUAL;
}

static bool _read_freq(chip_priv_t *p, uint32_t freq[2])
{
    if (_runs_dual(p))
        return dev_param_get(p->dev, TQCAM_PARAM_DUAL_FREQ, freq, 2 * sizeof(*freq));
    return dev_param_get(p->dev, TQCAM_PARAM_MOD_FREQ, freq, sizeof(*freq));
}

static void _release(chip_priv_t *p)
{
    delete static_cast<imx_priv_t *>(p);
}

// A 70 degree lens without distortion.
lens_default_t imx_lens_default = {{}, {320, 240, 460, 460, {}, 0, 640, 480}};

static const chip_family_t IMX_FAMILY = {
    .name = {.init = "imx_init",
             .calib_load = "imx_calib_load",
             .mount = "imx_calc_mount_calib",
             .update_roi = "imx_on_update_roi",
             .lens_param_get = "imx_lens_param_get",
             .filter_enable = "imx_filter_enable",
             .filter_disable = "imx_filter_disable",
             .frame_get_info = "imx_frame_get_info",
             .frame_raw_proc = "imx_frame_raw_proc"},
    .sensor_w = IMX_SENSOR_W,
    .sensor_h = IMX_SENSOR_H,
    .fallback_freq = 120000000,
    .temp_limits = {1250, 1000},
    .lens = &imx_lens_default,
    .read_freq = _read_freq,
    .freq_change = imx_event_freq_change,
    .calib_is_ready = imx_calib_is_ready,
    .mount = imx_calc_mount_calib,
    .unmount = imx_calc_unmount_calib,
    .release = _release,
};

static bool _init(tqcam_drv_t *drv, tqcam_dev_t *dev)
{
    imx_priv_t *p = new (std::nothrow) imx_priv_t();
    chip_open(drv, dev, &IMX_FAMILY, p);
    _fill_tele_table(p);
    p->tele = tqtele_register(p->tele_table, IMX_TELE_VARS);
    p->is_imx570 = _is_imx570(dev);
    if (p->is_imx570)
        LOG_AS(1, "DBG", "imx_init", "[%s] * Temp-ceof dependent on freq mode: Enabled\n");
    _log_dev_lens(dev);
    imx_use_cases_init(p);
    for (imx_row_t &row : p->rows)
        calib_result_reset(&row.calib);
    p->img_w = IMX_SENSOR_W;
    p->img_h = IMX_SENSOR_H;
    p->bpf.f_param_bpf_sigma_spatial = 0.01f;
    p->bpf.f_param_bpf_sigma_range = 0.02f;
    p->bpf.f_param_bpf_range_min = 0;
    p->bpf.f_param_bpf_range_max = 256;
    chip_open_end(p, IMX_GRAY_BYTES, 256, 0.01f, 0.02f);
    return true;
}

static void _uninit(tqcam_drv_t *drv)
{
    for (chip_priv_t *p = chip_priv(drv); p; p = p->older)
        tqtele_unregister(static_cast<imx_priv_t *>(p)->tele);
    chip_uninit(drv);
}

const tqcam_drv_ops_t imx_ops = {
    .init = _init,
    .uninit = _uninit,
    .frame_get_info = imx_frame_get_info,
    .frame_decode = imx_frame_decode,
    .frame_need_data = imx_frame_need_data,
    .frame_raw_proc = imx_frame_raw_proc,
    .lens_param_get = chip_lens_param_get,
    .lens_rec_get = chip_lens_rec_get,
    .calib_freq_get = chip_calib_freq_get,
    .use_case_list = imx_use_case_list,
    .use_case_set = imx_use_case_set,
    .use_case_get = imx_use_case_get,
    .on_cap_state = chip_on_cap_state,
    .on_update_fps = chip_on_update_fps,
    .on_update_intg_time = imx_on_update_intg_time,
    .on_update_fmt = imx_on_update_fmt,
    .on_update_mod_freq = imx_on_update_mod_freq,
    .on_update_gray_div = chip_on_update_gray_div,
    .on_update_roi = imx_on_update_roi,
    .drv_calib_load = chip_calib_load,
    .reserved_a = chip_reserved_a,
    .reserved_b = chip_reserved_b,
    .filter_enable = imx_filter_enable,
    .filter_disable = imx_filter_disable,
};
