/* Lens undistortion: a slow step turns the lens parameters into a table of source pixels, a fast one gathers
 * images through it. Nearest pixel, no interpolation, so that a distance image keeps values that were
 * measured.
 *
 * The model is that of a camera with rational radial and tangential distortion (D. C. Brown, "Close-range
 * camera calibration", 1971, with the denominator of later calibrations): for ideal coordinates x, y and
 * r2 = x * x + y * y
 *
 *   kr = (1 + k1 r2 + k2 r2^2 + k3 r2^3) / (1 + k4 r2 + k5 r2^2 + k6 r2^3)
 *   xd = x kr + 2 p1 x y + p2 (r2 + 2 x^2)
 *   yd = y kr + p1 (r2 + 2 y^2) + 2 p2 x y
 *
 * with dcoef in the order k1, k2, p1, p2, k3, k4, k5, k6. */
#ifndef TQ_LENS_H
#define TQ_LENS_H

#include <stdbool.h>
#include <stdint.h>

#include "tqcam_export.h"
#include "tqcam_param.h"

#ifdef __cplusplus
extern "C" {
#endif

/* In the table: the output pixel has no source in the image. */
#define TQ_CALIB_LEN_NO_SOURCE 0xFFFFFFFFu

/* A map starts as zeros and is set by tq_calib_len_init_map. Any number of threads may gather through a map
 * while one other replaces or frees it; take its fields as read-only. */
typedef struct tq_calib_len_map_t {
    uint32_t *map; /* w * h source indices, row-major, or TQ_CALIB_LEN_NO_SOURCE; owned */
    int32_t n;     /* w * h */
    int32_t w, h;
    int32_t roi_x, roi_y, roi_w, roi_h; /* about the largest rectangle of output pixels with a source each */
    uint8_t inited;                     /* the map is set */
} tq_calib_len_map_t;

/* Sets a map for images of the lens's own size, img_w x img_h. All of the source stays in view, so that
 * pixels without a source appear at the border; a lens without distortion still gives a slight enlargement.
 *
 * The coefficients that count are the first n_dcoef; with n_dcoef 0 and a first one that isn't 0, those up to
 * the first 0. At most eight are read.
 *
 * A focal length of 0 and values that aren't finite give a map without a source anywhere. Sizes of 0 or above
 * 2^31 - 1 pixels, failed allocations and NULL pointers leave the map unset, with a line in the log. What the
 * map held before is not freed. */
TQCAM_API void tq_calib_len_init_map(tq_calib_len_map_t *map, const tqcam_lens_param_t *lens);
/* The same, after freeing what the map holds. */
TQCAM_API void tq_calib_len_update_map(tq_calib_len_map_t *map, const tqcam_lens_param_t *lens);
/* Frees the map, if set. NULL is allowed. */
TQCAM_API void tq_calib_len_uninit_map(tq_calib_len_map_t *map);

/* Undistorts an image through a map: dst[i] is the source pixel, or fill where there is none.
 *
 * dst, dst_len  where the first min(w * h, dst_len) pixels go; may be src itself
 * src, w, h     the image, of the map's own size
 *
 * Returns true; false with a line in the log when the map is unset or of another size, a pointer is NULL, or
 * memory for working in place can't be had. */
TQCAM_API bool tq_calib_len_undistort_f32(const tq_calib_len_map_t *map, float *dst, int dst_len,
                                          const float *src, int w, int h, float fill);
TQCAM_API bool tq_calib_len_undistort_u16(const tq_calib_len_map_t *map, uint16_t *dst, int dst_len,
                                          const uint16_t *src, int w, int h, uint16_t fill);

#ifdef __cplusplus
}
#endif

#endif
