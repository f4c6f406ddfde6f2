/* Opens a recording or a camera, takes one frame and prints the distance in the middle of the image.
 *
 *   example_print_distance scene.oni        a recording
 *   example_print_distance usb://001:002    a camera; tqcam list shows its URI */
#include <stdio.h>
#include <stdlib.h>

#include "tqcam.h"

int main(int argc, char **argv)
{
    tqcam_init(""); /* no log file; warnings go to the console */
    tqcam_dev_t *dev = tqcam_dev_open_by_uri(argc > 1 ? argv[1] : "scene.oni");
    if (!dev) {
        fprintf(stderr, "cannot open the device\n");
        return 1;
    }
    tqcam_dev_info_t info;
    tqcam_dev_get_info(dev, &info);
    printf("%s, up to %u x %u pixels\n", info.product, info.max_w, info.max_h);

    /* A raw frame is at most 8 bytes a pixel and some meta data. */
    const uint32_t raw_bytes = (uint32_t)info.max_w * info.max_h * 8 + 65536;
    void *raw = malloc(raw_bytes);
    tqcam_frame_t frame;
    int result = 1;
    if (raw && tqcam_cap_start(dev) && tqcam_cap_get_frames(dev, 1, raw, raw_bytes, &frame) == 1) {
        const uint32_t w = frame.frame_info.width, h = frame.frame_info.height;
        float *dist = malloc(sizeof *dist * w * h);
        if (dist && tqcam_frame_get_dist_f32(dev, dist, w * h, raw, frame.frame_info.frame_size,
                                             &frame.frame_info) > 0) {
            printf("frame %u: %.3f m at column %u, row %u\n", frame.frame_info.frame_idx,
                   dist[h / 2 * w + w / 2], w / 2, h / 2);
            result = 0;
        }
        free(dist);
    }
    free(raw);
    tqcam_cap_stop(dev);
    tqcam_dev_close(dev);
    tqcam_uninit();
    return result;
}
