// Turns one frame into a point cloud and writes it as PLY, coloured by distance.
//
//   example_cloud_to_ply scene.oni cloud.ply
#include <cstdio>
#include <vector>

#include "tqcam.h"

int main(int argc, char **argv)
{
    tqcam_init("");
    tqcam_dev_t *dev = tqcam_dev_open_by_uri(argc > 1 ? argv[1] : "scene.oni");
    if (!dev) {
        std::fprintf(stderr, "cannot open the device\n");
        return 1;
    }
    std::vector<unsigned char> raw(8u << 20);
    tqcam_frame_t frame;
    bool ok = tqcam_cap_snapshot(dev, raw.data(), static_cast<uint32_t>(raw.size()), &frame);

    const tqcam_frame_info_t &info = frame.frame_info;
    const uint32_t pixels = info.width * info.height;
    std::vector<float> dist(pixels), cloud(pixels * 4);
    ok = ok && pixels > 0 &&
         tqcam_frame_get_dist_f32(dev, dist.data(), pixels, raw.data(), info.frame_size, &info) > 0 &&
         tqcam_frame_get_pcl_xyzd(dev, cloud.data(), pixels * 4, dist.data(), pixels, info.width, info.height,
                                  true, nullptr, 0.3f, 6.0f) > 0;
    if (ok) {
        const int fd = tqcam_file_open(argc > 2 ? argv[2] : "cloud.ply", "wb");
        ok = fd >= 0 && tqcam_frame_save_ply(fd, cloud.data(), static_cast<int>(cloud.size()),
                                             TQCAM_PCL_FORMAT_XYZD, true);
        if (fd >= 0)
            tqcam_file_close(fd);
        std::printf("%u points\n", pixels);
    }
    tqcam_dev_close(dev);
    tqcam_uninit();
    return ok ? 0 : 1;
}
