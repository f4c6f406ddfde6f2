// Frames that feed the driver itself: the gray reference, and the frame-rate booster of the E3 model.
#include "drivers/epc/epc_priv.h"

static constexpr int32_t BFPS_MIN_FPS = 20;

static bool _boosts(const epc_priv_t *p)
{
    return p->bfps.bfps_dcs == 4 && p->rate.fps_set >= BFPS_MIN_FPS;
}

int epc_frame_raw_proc(tqcam_drv_t *drv, void *raw, uint32_t count, const tqcam_frame_info_t *info)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p || count != 1 || !raw || !info)
        return 0;
    if ((info->frame_format & 255) == EPC_FMT_GRAY_REF) {
        // Until something declares a measured reference ready it is all zero.
        chip_take_gray_reference(p, raw, info->frame_size, false, p->gray_ready && p->f_en_gray);
        return DRV_FRAME_CONSUMED;
    }
    if (!p->bfps.bfps_en || p->sport_en || p->bfps.bfps_dcs == 2)
        return 0;
    if (!_boosts(p)) {
        p->bfps.bfps_info = *info;
        return 1;
    }
    if (info->frame_format == EPC_FMT_4DCS && booster_cache(&p->bfps, raw, info))
        _feature_bfps_fill_data(&p->bfps, raw);
    return 0;
}

// Four frames come where the camera sends one.
static void _advance_time(tqcam_frame_info_t *info, int32_t fps)
{
    int32_t step_ms = fps >= 1 ? 1000 / (4 * fps) : 5;
    if (fps >= 1 && step_ms >= 2)
        step_ms--;
    info->time_usec += static_cast<uint32_t>(step_ms) * 1000;
    if (info->time_usec >= 1000000) {
        info->time_usec -= 1000000;
        info->time_sec++;
    }
}

int _feature_bfps_need_data(tqcam_drv_t *drv, void *raw, uint32_t count, tqcam_frame_info_t *out)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p || !raw || !out || count != 1 || !p->bfps.bfps_en || p->sport_en || !_boosts(p))
        return 0;
    booster_t *b = &p->bfps;
    // raw has room for a frame of the size seen last.
    if (b->bfps_info.frame_format != EPC_FMT_4DCS || !booster_has_data(b) ||
        b->bfps_size != p->last_frame_size)
        return 0;
    _feature_bfps_fill_data(b, raw);
    _advance_time(&b->bfps_info, p->rate.fps_set);
    *out = b->bfps_info;
    return 1;
}
