// From a frame's header to the information that goes with it.
#include "drivers/epc/epc_priv.h"

#include "log/log.h"
#include "tq_stream.h"

bool epc_frame_get_info(tqcam_drv_t *drv, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr, const void *,
                        uint32_t)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p || !out || !hdr)
        return false;
    p->frame_ok = 1;
    chip_frame_temperatures(p, hdr);
    chip_frame_temp_monitor(p, p->f_en_temp_monitor && hdr->frame_fmt != CHIP_FMT_CALIB);
    p->last_frame_size = hdr->frame_len;

    const bool small = p->chip_variant == EPC_VARIANT_160X60;
    const uint32_t w = hdr->width ? hdr->width : small ? 160 : 320;
    const uint32_t h = hdr->height ? hdr->height : small ? 60 : 240;
    const bool image = hdr->frame_fmt <= 255 && hdr->frame_fmt != CHIP_FMT_CALIB;
    if (image && hdr->frame_len % (uint64_t{w} * h) != 0) {
        *out = {};
        LOG_ERROR("[%s]Wrong frame size %d,%d (%d,%d)\n", uint32_t{hdr->frame_len}, w * h, w, h);
        return false;
    }
    chip_frame_info(p, out, hdr, w, h);
    return true;
}
