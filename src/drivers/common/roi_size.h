// Sizes of images after a region of interest was cut and its pixels were binned.
#pragma once

#include <cstdint>

#include "calib/calib_result.h"

struct roi_shift_t {
    uint8_t w, h; // log2 of the columns and rows of a bin
};
inline constexpr roi_shift_t ROI_SHIFTS[] = {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {1, 2}};

inline bool roi_binning_ok(const calib_roi_t &roi)
{
    return roi.binning < sizeof(ROI_SHIFTS) / sizeof(ROI_SHIFTS[0]);
}

// A ROI that no event has set yet.
inline bool roi_is_unset(const calib_roi_t &roi)
{
    return roi.binning == 0 && roi.erow == 0 && roi.scol == 0;
}

// Width and height of the region, in pixels of the sensor; 0 or below for bounds in the wrong order.
inline int32_t roi_extent_w(const calib_roi_t &roi)
{
    return roi.ecol - roi.scol + 1;
}
inline int32_t roi_extent_h(const calib_roi_t &roi)
{
    return roi.erow - roi.srow + 1;
}

// Columns and rows of what a calibration's planes hold: a bin that the region cuts counts. The planes' place
// is that of the full image, whatever the region: the second begins plane_stride values behind the first.
struct roi_planes_t {
    uint32_t w, h;
    uint64_t stride;
};
inline roi_planes_t roi_planes_of(const calib_result_t &res)
{
    const uint64_t full = uint64_t{res.blk.img_w} * res.blk.img_h;
    if (!res.roi_applied)
        return {res.blk.img_w, res.blk.img_h, full};
    if (!roi_binning_ok(res.roi) || roi_extent_w(res.roi) < 1 || roi_extent_h(res.roi) < 1)
        return {0, 0, 0};
    const roi_shift_t shift = ROI_SHIFTS[res.roi.binning];
    const auto bins = [](int32_t extent, uint8_t s) {
        return (static_cast<uint32_t>(extent) + (1u << s) - 1) >> s;
    };
    return {bins(roi_extent_w(res.roi), shift.w), bins(roi_extent_h(res.roi), shift.h),
            full / (uint64_t{1} << (shift.w + shift.h))};
}
