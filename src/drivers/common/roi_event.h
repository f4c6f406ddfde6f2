// What a new region of interest makes of the frame size.
#pragma once

#include "drivers/common/roi_size.h"
#include "log/log.h"

struct roi_frame_t {
    uint32_t w, h; // of the frames: the region's extent, binned
    bool whole;    // the extent is that of the whole sensor under this binning
};

// A region that the sensor doesn't have is logged under the caller's name and leaves what frame holds.
inline void roi_frame_of(const calib_roi_t &roi, uint32_t sensor_w, uint32_t sensor_h, roi_frame_t *frame,
                         const char *caller)
{
    const int64_t extent_w = roi_extent_w(roi), extent_h = roi_extent_h(roi);
    if (!roi_binning_ok(roi)) {
        LOG_AS(6, "ERR", caller, "[%s] roi wrong mode: %u\n", roi.binning);
    } else if (extent_w < 1 || extent_h < 1 || extent_w > sensor_w || extent_h > sensor_h) {
        LOG_AS(6, "ERR", caller, "[%s] roi wrong bounds: rows %u to %u, columns %u to %u\n", roi.srow,
               roi.erow, roi.scol, roi.ecol);
    } else {
        const roi_shift_t shift = ROI_SHIFTS[roi.binning];
        *frame = {static_cast<uint32_t>(extent_w) >> shift.w, static_cast<uint32_t>(extent_h) >> shift.h,
                  sensor_w >> shift.w == extent_w && sensor_h >> shift.h == extent_h};
    }
}
