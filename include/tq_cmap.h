/* Colours for display: distance or gray images to RGB through one of 64 palettes, single colours for a value,
 * and histogram equalisation.
 *
 * A map may be used from any thread: its palette and range change under a lock, and a conversion takes the
 * palette once, when it starts. tq_cmap_init and tq_cmap_uninit are for one thread, with no other call on the
 * map running. Images are the caller's. Functions that allocate log "malloc failed" and end the process with
 * status 0 when out of memory; tq_cmap_init ends it with status -3. */
#ifndef TQ_CMAP_H
#define TQ_CMAP_H

#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>

#include "tqcam_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Treat the fields as read-only. */
typedef struct tq_cmap_t {
    int32_t n;        /* size of the computed table */
    float vmin, vmax; /* range of tq_cmap_get_color */
    float idx_scale;  /* n / (vmax - vmin) */
    float rgb_scale;  /* 255 / (vmax - vmin) */
    uint32_t *tbl;    /* the computed table, R | G << 8 | B << 16; owned */
    int32_t palette;  /* 0 to 63 */
    float pal_scale;  /* the same as rgb_scale */
    pthread_mutex_t lock;
    void *priv; /* owned */
} tq_cmap_t;

/* Makes a map with palette 0, the range 0 to 4000 and a computed table of n colours, red to blue; n below 1
 * makes none. */
TQCAM_API void tq_cmap_init(tq_cmap_t *m, int n);

/* Frees what the map holds; NULL is fine. */
TQCAM_API void tq_cmap_uninit(tq_cmap_t *m);

/* Sets the range of tq_cmap_get_color, ends in any order. With equal ends the range stays and only its scales
 * change. */
TQCAM_API void tq_cmap_set_range(tq_cmap_t *m, float vmin, float vmax);

/* The palette of the following calls, 0 to 63; false for another number. */
TQCAM_API bool tq_cmap_set_palette(tq_cmap_t *m, uint32_t idx);
TQCAM_API uint32_t tq_cmap_get_palette(tq_cmap_t *m);

/* The colour of one value, R | G << 8 | B << 16. The markers of invalid pixels, 65300, 65400 and 65500, have
 * colours of their own; values at or below the range's lower end or above its upper end are black. Palette 0
 * takes the computed table backwards, the others their palette. */
TQCAM_API uint32_t tq_cmap_get_color(tq_cmap_t *m, int value);

/* Spread the values of an image over the range so that each part of it is used by as many pixels.
 *
 * dst, src           n values each; dst may be src
 * vmin, vmax         the range
 * bins               histogram bins at most, from 1
 * drop_out_of_range  values at or below vmin and at or above vmax don't count and become 0; otherwise they
 *                    count in the first and last bin
 *
 * An empty range, or no pixel in range, gives zeros. Return 0; -22 for NULL pointers, n or bins below 1. */
TQCAM_API int tq_cmap_histeq_u16(uint16_t *dst, const uint16_t *src, int n, uint16_t vmin, uint16_t vmax,
                                 int bins, bool drop_out_of_range);
TQCAM_API int tq_cmap_histeq_f32(float *dst, const float *src, int n, float vmin, float vmax, int bins,
                                 bool drop_out_of_range);

/* Colour an image by the map's palette, palette 0 included, between the ends of a range of its own.
 *
 * src           n values
 * r, g, b       where the first pixel's channels go
 * stride        bytes from one pixel to the next in each of the three planes: 1 for planar output, 3 or 4 for
 *               interleaved
 * vmin, vmax    values at or below vmin (and NaN) are black, those above vmax take the last colour; with
 *               vmax not above vmin all that isn't black takes the palette's last row
 * histeq        equalise first, with 256 bins and dropping what is out of range. The f32 form then colours
 *               the equalised image; the u16 form colours src.
 *
 * Only the three bytes of each pixel are written. Return 0; -22 for NULL pointers. */
TQCAM_API int tq_cmap_u16_to_rgb(tq_cmap_t *m, const uint16_t *src, int n, uint8_t *r, uint8_t *g, uint8_t *b,
                                 int stride, uint16_t vmin, uint16_t vmax, bool histeq);
TQCAM_API int tq_cmap_f32_to_rgb(tq_cmap_t *m, const float *src, int n, uint8_t *r, uint8_t *g, uint8_t *b,
                                 int stride, float vmin, float vmax, bool histeq);

#ifdef __cplusplus
}
#endif

#endif
