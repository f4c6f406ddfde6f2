// Colouring distance images.
#include "bench_support.h"

#include <memory>

#include "tq_cmap.h"

#ifdef TQCAM_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

static void add_size(int w, int h)
{
    const int n = w * h;
    const std::string size = "/" + std::to_string(w) + "x" + std::to_string(h);
    const std::vector<uint16_t> src = bench_scene(w, h, 3);
    const std::vector<float> src_f(src.begin(), src.end());
    const std::vector<uint8_t> room((size_t)n * 4);
    const std::shared_ptr<tq_cmap_t> map(new tq_cmap_t, [](tq_cmap_t *m) {
        tq_cmap_uninit(m);
        delete m;
    });
    tq_cmap_init(map.get(), 30000);
    tq_cmap_set_palette(map.get(), 14);

    const struct {
        const char *name;
        int r, g, b, stride;
    } layouts[] = {{"rgb", 0, 1, 2, 3}, {"rgba", 0, 1, 2, 4}, {"planes", 0, n, 2 * n, 1}};
    for (const auto &l : layouts) {
        bench_forms("colour_u16_" + std::string(l.name) + size, n, [=, dst = room]() mutable {
            tq_cmap_u16_to_rgb(map.get(), src.data(), n, &dst[l.r], &dst[l.g], &dst[l.b], l.stride, 0, 4000,
                               false);
        });
        bench_forms("colour_f32_" + std::string(l.name) + size, n, [=, dst = room]() mutable {
            tq_cmap_f32_to_rgb(map.get(), src_f.data(), n, &dst[l.r], &dst[l.g], &dst[l.b], l.stride, 0, 4000,
                               false);
        });
    }
    bench_forms("colour_u16_new_range" + size, n, [=, dst = room, hi = (uint16_t)4000]() mutable {
        tq_cmap_u16_to_rgb(map.get(), src.data(), n, &dst[0], &dst[1], &dst[2], 3, 0, hi ^= 1, false);
    });
    bench_copy("u16_to_rgb" + size, n, (size_t)n * 5 / 2);
#ifdef TQCAM_HAVE_OPENCV
    cv::setNumThreads(1);
    const cv::Mat image(h, w, CV_16U, const_cast<uint16_t *>(src.data()));
    bench_row("colour_u16_rgb" + size + "/cv convertTo + applyColorMap", n,
              [m = image.clone(), m8 = cv::Mat(), out = cv::Mat()]() mutable {
                  m.convertTo(m8, CV_8U, 255.0 / 4000);
                  cv::applyColorMap(m8, out, cv::COLORMAP_TURBO);
              });
#endif
}

static const bool added = [] {
    add_size(320, 240);
    add_size(640, 480);
    return true;
}();
