// From a frame's header to the information that goes with it, and the frame that is a gray reference.
#include <cstring>

#include "drivers/common/chip.h"
#include "log/log.h"
#include "tq_stream.h"

void chip_frame_temperatures(chip_priv_t *p, const tq_frame_hdr_t *hdr)
{
    const char *const name = p->family->name.frame_get_info;
    int16_t cb = hdr->temp_cb, ib = hdr->temp_ib;
    if (p->dev->address.if_type != TQCAM_IF_FILE)
        temp_filter(&p->temp, &cb, &ib, name);
    temp_accept(&p->temp, cb, ib, hdr->temp_ib, p->family->temp_limits, name);
}

void chip_frame_temp_monitor(chip_priv_t *p, bool on)
{
    const char *const name = p->family->name.frame_get_info;
    if (!on) {
        LOG_AS(0, "TRC", name, "[%s]Temp monitor not enable\n");
        return;
    }
    const uint64_t now = clock_ms(), last = p->temp.monitor_ms;
    if (last && now - last < 10000)
        return;
    LOG_AS(1, "DBG", name, "[%s]Tib:%.2f, Tcb:%.2f, FPS:%.1f/%d\n", p->temp.temp_ib / 10.0,
           p->temp.temp_cb / 10.0, static_cast<double>(p->rate.fps_meas), int32_t{p->rate.fps_set});
    p->temp.monitor_ms = now;
}

void chip_frame_info(chip_priv_t *p, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr, uint32_t w,
                     uint32_t h)
{
    memset(out, 0, sizeof(*out));
    if (hdr->frame_fmt > 255) { // not an image: the header itself goes on
        memcpy(out, hdr, sizeof(*hdr));
    } else {
        out->frame_size = hdr->frame_len;
        out->width = hdr->width ? hdr->width : w;
        out->height = hdr->height ? hdr->height : h;
        out->pixel_bytes = static_cast<uint8_t>(hdr->frame_len / out->width / out->height);
    }
    out->frame_format = hdr->frame_fmt;
    out->frame_idx = hdr->frame_idx;
    out->temp_cb = p->temp.temp_cb;
    out->temp_ib = p->temp.temp_ib;
    frame_time(hdr->time, &out->time_sec, &out->time_usec);
    frame_rate_count(&p->rate);
}

void chip_take_gray_reference(chip_priv_t *p, const void *raw, uint32_t bytes, bool exact, bool on)
{
    const char *const name = p->family->name.frame_raw_proc;
    DrvLock lock(p->calib_lock);
    if (exact ? p->gray_buf.size != bytes : p->gray_buf.size < bytes) {
        LOG_AS(1, "DBG", name, "[%s]change gray size to %d\n", bytes);
        p->gray_buf.release();
        if (!p->gray_buf.need(bytes)) {
            LOG_AS(6, "ERR", name, "[%s]malloc failed\n");
            return;
        }
    }
    const int32_t divisor = p->gray_div;
    for (uint32_t i = 0; i < bytes / 2; i++) {
        uint16_t sample;
        memcpy(&sample, static_cast<const uint8_t *>(raw) + 2 * size_t{i}, sizeof(sample));
        p->gray_buf.as<int16_t>()[i] = static_cast<int16_t>(on ? (sample - 2048) / divisor : 0);
    }
}
