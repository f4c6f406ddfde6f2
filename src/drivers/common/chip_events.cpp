// What any driver does when a parameter changed.
#include <cstring>

#include "drivers/common/chip.h"
#include "drivers/common/dev_param.h"
#include "drivers/common/roi_size.h"
#include "log/log.h"

void chip_sys_calib_refresh(chip_priv_t *p)
{
    float scale, offset;
    if (!dev_sys_calib_get(p->dev, &scale, &offset))
        return;
    p->sys_scale = scale;
    p->sys_offset = offset;
}

void chip_on_update_fps(tqcam_drv_t *drv, uint32_t fps)
{
    if (chip_priv_t *p = chip_priv(drv))
        frame_rate_set(&p->rate, fps);
}

void chip_on_update_gray_div(tqcam_drv_t *drv, uint16_t value)
{
    if (chip_priv_t *p = chip_priv(drv))
        p->gray_div = value ? value : 1;
}

void chip_on_cap_state(tqcam_drv_t *drv, int started)
{
    chip_priv_t *p = chip_priv(drv);
    if (!p || started)
        return;
    temp_restart(&p->temp);
    p->rate.mark_ms = 0;
}

// What a region makes of the frame size: its extent, binned. whole: that of the whole sensor under this
// binning. A region that the sensor doesn't have is logged and leaves the size.
struct roi_frame_t {
    uint32_t w, h;
    bool whole;
};
static roi_frame_t _frame_of(const chip_priv_t *p, const calib_roi_t &roi)
{
    const char *const name = p->family->name.update_roi;
    const uint32_t sensor_w = p->family->sensor_w, sensor_h = p->family->sensor_h;
    const int64_t extent_w = roi_extent_w(roi), extent_h = roi_extent_h(roi);
    const uint32_t w = p->img_w, h = p->img_h;
    if (!roi_binning_ok(roi)) {
        LOG_AS(6, "ERR", name, "[%s] roi wrong mode: %u\n", roi.binning);
    } else if (extent_w < 1 || extent_h < 1 || extent_w > sensor_w || extent_h > sensor_h) {
        LOG_AS(6, "ERR", name, "[%s] roi wrong bounds: rows %u to %u, columns %u to %u\n", roi.srow, roi.erow,
               roi.scol, roi.ecol);
    } else {
        const roi_shift_t shift = ROI_SHIFTS[roi.binning];
        return {static_cast<uint32_t>(extent_w) >> shift.w, static_cast<uint32_t>(extent_h) >> shift.h,
                sensor_w >> shift.w == extent_w && sensor_h >> shift.h == extent_h};
    }
    return {w, h, extent_w == w && extent_h == h};
}

// Nothing else has to change when the size is what it was before: the whole sensor without binning, as after
// open.
void chip_update_roi(chip_priv_t *p, const uint8_t *value, bool fixed_size)
{
    const char *const name = p->family->name.update_roi;
    calib_roi_t roi;
    memcpy(&roi, value, sizeof(roi));
    const roi_frame_t frame = fixed_size ? roi_frame_t{p->img_w, p->img_h, true} : _frame_of(p, roi);
    tqcam_lens_param_t lens = {};
    {
        DrvLock lock(p->calib_lock);
        p->roi = roi;
        const bool ready = p->family->calib_is_ready(p);
        if (frame.whole && frame.w == p->img_w && frame.h == p->img_h && (ready || !p->calib_mounted)) {
            LOG_AS(1, "DBG", name, "[%s] roi updated: %ux%u @ (%u, %u), binning=%u\n", frame.w, frame.h,
                   roi.scol, roi.srow, roi.binning);
            return;
        }
        p->img_w = frame.w;
        p->img_h = frame.h;
        if (!ready) {
            p->family->unmount(p);
            p->family->mount(p);
        }
        chip_lens_update(p, &lens);
    }
    _filter_bpf_reload_parameter(&p->bpf, frame.w, frame.h, true);
    LOG_AS(1, "DBG", name, "[%s] roi updated: %ux%u @ (%u, %u), binning=%u, len=[%f,%f,%f,%f]\n", frame.w,
           frame.h, roi.scol, roi.srow, roi.binning, lens.cx, lens.cy, lens.fx, lens.fy);
}
