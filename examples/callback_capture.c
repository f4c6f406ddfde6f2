/* Captures with callbacks: the library hands over every frame, and tells of errors, inside the retrieval
 * call.
 *
 *   example_callback_capture scene.oni [frames] */
#include <stdio.h>
#include <stdlib.h>

#include "tqcam.h"

static unsigned frames, wanted = 5;

static void on_frame(tqcam_dev_t *dev, tqcam_frame_t *frame)
{
    const tqcam_frame_info_t *info = &frame->frame_info;
    const uint32_t pixels = info->width * info->height;
    uint16_t *dist = malloc(sizeof *dist * pixels);
    /* The frame's bytes are here during this call only: decode or copy them now. */
    if (dist && tqcam_frame_get_dist_u16(dev, dist, pixels, frame->frame_data, info->frame_size, info) > 0)
        printf("frame %u: %u mm in the middle, %.1f degrees\n", info->frame_idx,
               dist[pixels / 2 + info->width / 2], info->temp_cb / 10.0);
    free(dist);
    frames++;
}

static bool on_error(tqcam_dev_t *dev, int code, uint64_t value)
{
    (void)dev;
    fprintf(stderr, "capture: %s (%llu)\n", tqcam_error_name(code), (unsigned long long)value);
    return code == TQCAM_ERR_CAP_FRAME_DISCARD; /* go on after a lost frame, end on anything else */
}

int main(int argc, char **argv)
{
    if (argc > 2)
        wanted = (unsigned)atoi(argv[2]);
    tqcam_init("");
    tqcam_dev_t *dev = tqcam_dev_open_by_uri(argc > 1 ? argv[1] : "scene.oni");
    if (!dev) {
        fprintf(stderr, "cannot open the device\n");
        return 1;
    }
    tqcam_cap_set_callback_on_frame_ready(dev, on_frame);
    tqcam_cap_set_callback_on_error(dev, on_error);
    if (tqcam_cap_start(dev))
        while (frames < wanted && tqcam_cap_is_ongoing(dev))
            tqcam_cap_get_frames(dev, 1, NULL, 0, NULL); /* no buffer: frames go to the callback */
    tqcam_cap_stop(dev);
    tqcam_dev_close(dev);
    tqcam_uninit();
    return frames > 0 ? 0 : 1;
}
