// The device's region of interest changed.
#include "drivers/epc/epc_priv.h"

#include <cstring>

#include "drivers/common/roi_event.h"
#include "log/log.h"

static constexpr uint32_t SENSOR_W = 320, SENSOR_H = 240;

// Frames show the region, binned. Nothing else has to change when that is what was there before: the whole
// sensor without binning, as after open.
void epc_on_update_roi(tqcam_drv_t *drv, const uint8_t *value)
{
    epc_priv_t *p = epc_priv(drv);
    if (!p)
        return;
    if (p->chip_variant != EPC_VARIANT_160X60)
        p->chip_variant = EPC_VARIANT_ROI;
    calib_roi_t roi;
    memcpy(&roi, value, sizeof(roi));
    uint32_t w = p->img_w, h = p->img_h;
    bool whole = true;
    if (p->chip_variant == EPC_VARIANT_ROI) {
        const int32_t extent_w = roi_extent_w(roi), extent_h = roi_extent_h(roi);
        whole = extent_w == static_cast<int32_t>(w) && extent_h == static_cast<int32_t>(h);
        roi_frame_t frame = {w, h, whole};
        roi_frame_of(roi, SENSOR_W, SENSOR_H, &frame, __func__);
        w = frame.w;
        h = frame.h;
        whole = frame.whole;
    }
    tqcam_lens_param_t lens = {};
    {
        DrvLock lock(p->calib_lock);
        p->roi = roi;
        const bool ready = epc_calib_is_ready(p);
        if (whole && w == p->img_w && h == p->img_h && (ready || !p->calib_mounted)) {
            LOG_DEBUG("[%s] roi updated: %ux%u @ (%u, %u), binning=%u\n", w, h, roi.scol, roi.srow,
                      roi.binning);
            return;
        }
        p->img_w = w;
        p->img_h = h;
        if (!ready) {
            epc_calc_unmount_clib(drv);
            epc_calc_mount_calib(drv);
        }
        epc_lens_update(drv, &lens);
    }
    _filter_bpf_reload_parameter(&p->bpf, w, h, true);
    LOG_DEBUG("[%s] roi updated: %ux%u @ (%u, %u), binning=%u, len=[%f,%f,%f,%f]\n", w, h, roi.scol, roi.srow,
              roi.binning, lens.cx, lens.cy, lens.fx, lens.fy);
}
