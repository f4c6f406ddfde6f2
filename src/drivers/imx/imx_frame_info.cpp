// From a frame's header and metadata to the information that goes with it, and frames that feed the driver
// itself.
#include "drivers/imx/imx_priv.h"
#include "log/log.h"
#include "tq_stream.h"

bool imx_frame_get_info(tqcam_drv_t *drv, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr,
                        const void *data, uint32_t len)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p || !out || !hdr)
        return false;
    p->frame_ok = 1;
    chip_frame_temperatures(p, hdr);
    if (hdr->frame_fmt != CHIP_FMT_CALIB)
        chip_frame_temp_monitor(p, p->f_en_temp_monitor);
    chip_frame_info(p, out, hdr, IMX_SENSOR_W, IMX_SENSOR_H);
    if (hdr->frame_fmt > 255) {
        LOG_TRACE("[%s]idx:%d,0x%x\n", hdr->frame_idx, hdr->frame_fmt);
        return true;
    }
    out->meta_size = hdr->aux;
    out->meta_intg_us = imx_meta_intg_us(static_cast<const uint8_t *>(data), len, hdr->aux);
    LOG_TRACE("[%s]frame: fmt=%d, sz=%d, wxh=%dx%d, meta=%u\n", out->frame_format, out->frame_size,
              out->width, out->height, out->meta_size);
    return true;
}

int imx_frame_raw_proc(tqcam_drv_t *drv, void *raw, uint32_t count, const tqcam_frame_info_t *info)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p || count != 1 || !raw || !info)
        return 0;
    if ((info->frame_format & 255) == IMX_FMT_GRAY_REF) {
        // Nothing switches its use on for this chip, so that it is all zero.
        chip_take_gray_reference(p, raw, info->frame_size, true, p->f_en_gray);
        return DRV_FRAME_CONSUMED;
    }
    if (!p->bfps.bfps_en) // no model of this family has the booster on
        return 0;
    if (p->bfps.bfps_dcs != 4) {
        p->bfps.bfps_info = *info;
        return 1;
    }
    if (info->frame_format == IMX_FMT_4DCS && booster_cache(&p->bfps, raw, info))
        _feature_bfps_fill_data(&p->bfps, raw);
    return 0;
}

int imx_frame_need_data(tqcam_drv_t *drv, void *raw, uint32_t count, tqcam_frame_info_t *out)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p || !raw || !out || count != 1 || !p->bfps.bfps_en)
        return 0;
    if (p->bfps.bfps_dcs != 4)
        return 1;
    if (p->bfps.bfps_info.frame_format != IMX_FMT_4DCS || !booster_has_data(&p->bfps))
        return 0;
    _feature_bfps_fill_data(&p->bfps, raw);
    *out = p->bfps.bfps_info;
    return 1;
}
