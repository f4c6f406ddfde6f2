// Hands a distance image to OpenCV without a copy: the library decodes straight into the matrix.
//
//   example_opencv_view scene.oni distance.png
#include <cstdio>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
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
    cv::Mat distance(static_cast<int>(info.height), static_cast<int>(info.width), CV_16UC1);
    ok =
        ok && tqcam_frame_get_dist_u16(dev, distance.ptr<uint16_t>(), static_cast<uint32_t>(distance.total()),
                                       raw.data(), info.frame_size, &info) > 0;
    double nearest = 0, farthest = 0;
    if (ok) {
        cv::minMaxLoc(distance, &nearest, &farthest, nullptr, nullptr, distance > 0);
        std::printf("from %.0f to %.0f mm\n", nearest, farthest);
        ok = cv::imwrite(argc > 2 ? argv[2] : "distance.png", distance);
    }
    tqcam_dev_close(dev);
    tqcam_uninit();
    return ok ? 0 : 1;
}
