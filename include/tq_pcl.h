/* Point clouds from distance images, by the pinhole model.
 *
 * x and y are zero at the principal point and grow with column and row, z points out of the lens; all in
 * metres. */
#ifndef TQ_PCL_H
#define TQ_PCL_H

#include <stdint.h>

#include "tqcam_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Turns w x h distances into points.
 *
 * pcl     for each pixel x, y, z; with extra x, y, z and extra's 32 bits as they are; with z_only z alone
 * dist    distances: f32 in metres, u16 in millimetres. From 60 m on (NaN too) a distance counts as 0.
 * tbl     w * h values, at any alignment; value times distance is added to z. NULL stands for zeros.
 * lens    cx, cy, fx, fy in pixels of this image
 * extra   w * h 32-bit values, or NULL; ignored with z_only
 * z_only  other than 0: only the depth image
 * d_is_z  0: dist is measured along the ray; other: along the optical axis. x and y are formed alike in both.
 *
 * A ray that leaves the sphere (x * x + y * y above d * d) has z NaN. Columns are taken in fours: the last
 * one to three of a width not divisible by four are left unwritten. Any thread, on buffers of its own. pcl
 * may not overlap the inputs, but with z_only it may be dist itself.
 *
 * A w or h below 1 writes nothing.
 *
 * Returns 0, or -22 when pcl, dist or lens is NULL. */
TQCAM_API int tq_pcl_get_xyzd_f32(float *pcl, const float *dist, const float *tbl, int w, int h,
                                  const float *lens, const void *extra, uint8_t z_only, uint8_t d_is_z);
TQCAM_API int tq_pcl_get_xyzd_u16(float *pcl, const uint16_t *dist, const float *tbl, int w, int h,
                                  const float *lens, const void *extra, uint8_t z_only, uint8_t d_is_z);

#ifdef __cplusplus
}
#endif

#endif
