// The point cloud path that the public point cloud and lens functions share.
#pragma once

#include "tqcam.h"

// Turns a w x h distance image (f32 metres, or u16 millimetres with dist_is_f32 false) into points, or into a
// depth image with z_only. The handle is open and the call counted by the caller.
//
// pcl, pcl_len  room for w x h points of 1 f32 with z_only, 4 with extra, else 3; pcl_len counts f32
// extra         w x h 32-bit values, or null
// lens          cx, cy, fx, fy at this image size, or null for the driver's
//
// Returns w x h, or 0 with a line in the log.
uint32_t _tqcam_frame_get_pcl_ex(tqcam_dev_t *dev, float *pcl, uint32_t pcl_len, const void *dist,
                                 bool dist_is_f32, const void *extra, bool z_only, bool d_is_z, uint32_t w,
                                 uint32_t h, const float *lens);
