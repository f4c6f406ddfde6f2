// From a frame's header to the information that goes with it.
#include "drivers/epc/epc_priv.h"

#include <cstring>

#include "log/log.h"
#include "tq_stream.h"

static constexpr temp_limits_t TEMP_LIMITS = {900, 600};

static void _temperatures(epc_priv_t *p, const tq_frame_hdr_t *hdr)
{
    int16_t cb = hdr->temp_cb, ib = hdr->temp_ib;
    if (p->dev->address.if_type != TQCAM_IF_FILE)
        temp_filter(&p->temp, &cb, &ib, "epc_frame_get_info");
    temp_accept(&p->temp, cb, ib, hdr->temp_ib, TEMP_LIMITS, "epc_frame_get_info");
}

static void _temp_monitor(epc_priv_t *p, uint16_t fmt)
{
    if (!p->f_en_temp_monitor || fmt == EPC_FMT_CALIB) {
        LOG_AS(0, "TRC", "epc_frame_get_info", "[%s]Temp monitor not enable\n");
        return;
    }
    const uint64_t now = clock_ms(), last = p->temp.monitor_ms;
    if (last && now - last < 10000)
        return;
    LOG_AS(1, "DBG", "epc_frame_get_info", "[%s]Tib:%.2f, Tcb:%.2f, FPS:%.1f/%d\n", p->temp.temp_ib / 10.0,
           p->temp.temp_cb / 10.0, static_cast<double>(p->rate.fps_meas), int32_t{p->rate.fps_set});
    p->temp.monitor_ms = now;
}

bool epc_frame_get_info(tqcam_drv_t *drv, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr, const void *,
                        uint32_t)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p || !out || !hdr)
        return false;
    p->frame_ok = 1;
    _temperatures(p, hdr);
    _temp_monitor(p, hdr->frame_fmt);
    p->last_frame_size = hdr->frame_len;

    memset(out, 0, sizeof(*out));
    if (hdr->frame_fmt > 255) { // not an image: the header itself goes on
        memcpy(out, hdr, sizeof(*hdr));
        out->frame_format = hdr->frame_fmt;
        out->frame_idx = hdr->frame_idx;
    } else {
        const bool small = p->chip_variant == EPC_VARIANT_160X60;
        const uint32_t w = hdr->width ? hdr->width : small ? 160 : 320;
        const uint32_t h = hdr->height ? hdr->height : small ? 60 : 240;
        if (hdr->frame_fmt != EPC_FMT_CALIB && hdr->frame_len % (uint64_t{w} * h) != 0) {
            LOG_ERROR("[%s]Wrong frame size %d,%d (%d,%d)\n", uint32_t{hdr->frame_len}, w * h, w, h);
            return false;
        }
        out->frame_size = hdr->frame_len;
        out->frame_format = hdr->frame_fmt;
        out->frame_idx = hdr->frame_idx;
        out->width = w;
        out->height = h;
        out->pixel_bytes = static_cast<uint8_t>(hdr->frame_len / w / h);
    }
    out->temp_cb = p->temp.temp_cb;
    out->temp_ib = p->temp.temp_ib;
    frame_time(hdr->time, &out->time_sec, &out->time_usec);
    frame_rate_count(&p->rate);
    return true;
}
