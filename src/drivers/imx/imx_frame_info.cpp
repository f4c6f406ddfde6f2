// From a frame's header and metadata to the information that goes with it, and frames that feed the driver
// itself.
#include <cstring>

#include "drivers/imx/imx_priv.h"
#include "log/log.h"
#include "tq_stream.h"

static constexpr temp_limits_t TEMP_LIMITS = {1250, 1000};

static void _temperatures(imx_priv_t *p, const tq_frame_hdr_t *hdr)
{
    int16_t cb = hdr->temp_cb, ib = hdr->temp_ib;
    if (p->dev->address.if_type != TQCAM_IF_FILE)
        temp_filter(&p->temp, &cb, &ib, "imx_frame_get_info");
    temp_accept(&p->temp, cb, ib, hdr->temp_ib, TEMP_LIMITS, "imx_frame_get_info");
}

static void _temp_monitor(imx_priv_t *p)
{
    if (!p->f_en_temp_monitor) {
        LOG_AS(0, "TRC", "imx_frame_get_info", "[%s]Temp monitor not enable\n");
        return;
    }
    const uint64_t now = clock_ms(), last = p->temp.monitor_ms;
    if (last && now - last < 10000)
        return;
    LOG_AS(1, "DBG", "imx_frame_get_info", "[%s]Tib:%.2f, Tcb:%.2f, FPS:%.1f/%d\n", p->temp.temp_ib / 10.0,
           p->temp.temp_cb / 10.0, static_cast<double>(p->rate.fps_meas), int32_t{p->rate.fps_set});
    p->temp.monitor_ms = now;
}

bool imx_frame_get_info(tqcam_drv_t *drv, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr,
                        const void *data, uint32_t len)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p || !out || !hdr)
        return false;
    p->frame_ok = 1;
    _temperatures(p, hdr);
    if (hdr->frame_fmt != 171) // calibration data
        _temp_monitor(p);

    std::memset(out, 0, sizeof(*out));
    if (hdr->frame_fmt & 0xFF00) { // not an image: the header itself goes on
        std::memcpy(out, hdr, sizeof(*hdr));
        out->frame_format = hdr->frame_fmt;
        out->frame_idx = hdr->frame_idx;
        LOG_TRACE("[%s]idx:%d,0x%x\n", hdr->frame_idx, hdr->frame_fmt);
    } else {
        const uint32_t w = hdr->width ? hdr->width : IMX_SENSOR_W;
        const uint32_t h = hdr->height ? hdr->height : IMX_SENSOR_H;
        out->frame_size = hdr->frame_len;
        out->frame_format = hdr->frame_fmt;
        out->frame_idx = hdr->frame_idx;
        out->width = w;
        out->height = h;
        out->pixel_bytes = static_cast<uint8_t>(hdr->frame_len / w / h);
        out->meta_size = hdr->aux;
        out->meta_intg_us = imx_meta_intg_us(static_cast<const uint8_t *>(data), len, hdr->aux);
        LOG_TRACE("[%s]frame: fmt=%d, sz=%d, wxh=%dx%d, meta=%u\n", out->frame_format, out->frame_size, w, h,
                  out->meta_size);
    }
    out->temp_cb = p->temp.temp_cb;
    out->temp_ib = p->temp.temp_ib;
    frame_time(hdr->time, &out->time_sec, &out->time_usec);
    frame_rate_count(&p->rate);
    return true;
}

// Light of the scene without modulation. Nothing switches its use on for this chip, so that it is all zero.
static void _take_gray_reference(imx_priv_t *p, const void *raw, uint32_t bytes)
{
    DrvLock lock(p->calib_lock);
    if (p->gray_buf.size != bytes) {
        LOG_AS(1, "DBG", "imx_frame_raw_proc", "[%s]change gray size to %d\n", bytes);
        p->gray_buf.release();
        if (!p->gray_buf.need(bytes)) {
            LOG_AS(6, "ERR", "imx_frame_raw_proc", "[%s]malloc failed\n");
            return;
        }
    }
    const int32_t divisor = p->gray_div, on = p->f_en_gray;
    for (uint32_t i = 0; i < bytes / 2; i++) {
        uint16_t sample;
        std::memcpy(&sample, static_cast<const uint8_t *>(raw) + 2 * size_t{i}, sizeof(sample));
        p->gray_buf.as<int16_t>()[i] = static_cast<int16_t>((sample - 2048) / divisor * on);
    }
}

int imx_frame_raw_proc(tqcam_drv_t *drv, void *raw, uint32_t count, const tqcam_frame_info_t *info)
{
    imx_priv_t *p = imx_priv(drv);
    if (!p || count != 1 || !raw || !info)
        return 0;
    if ((info->frame_format & 255) == IMX_FMT_GRAY_REF) {
        _take_gray_reference(p, raw, info->frame_size);
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
