// Fly-pixel, hole fill and bilateral filter.
#include "bench_support.h"

#include <memory>

#include "tq_depth.h"

#ifdef TQCAM_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif
#ifdef TQCAM_HAVE_XIMGPROC
#include <opencv2/ximgproc.hpp>
#endif

static void add_bilateral(const std::string &name, int w, int h, const std::vector<uint16_t> &src)
{
    const std::shared_ptr<tq_bpf2d_iir_t> filter(new tq_bpf2d_iir_t, [](tq_bpf2d_iir_t *f) {
        tq_bpf2d_iir_uninit(f);
        delete f;
    });
    tq_bpf2d_iir_init(filter.get(), (uint32_t)w, (uint32_t)h, 0, 4096, 0.02f, 0.1f);
    bench_forms(name, (double)w * h, [=, dst = std::vector<uint16_t>(src.size())]() mutable {
        tq_bpf2d_iir(filter.get(), dst.data(), src.data(), (uint32_t)w, (uint32_t)h);
    });
}

static void add_size(int w, int h)
{
    const double px = (double)w * h;
    const std::string size = "/" + std::to_string(w) + "x" + std::to_string(h);
    const std::vector<uint16_t> src = bench_scene(w, h, 3);
    std::vector<uint16_t> dst(src.size());

    bench_forms("flypix_k3" + size, px,
                [=]() mutable { tq_flypix_u16_k3(dst.data(), src.data(), w, h, 20); });
    bench_forms("fhole_k3" + size, px, [=]() mutable { tq_fhole_u16_k3(dst.data(), src.data(), w, h, 0); });
    add_bilateral("bilateral" + size, w, h, src);
    add_bilateral("bilateral_no_holes" + size, w, h, bench_scene(w, h, 0));
    std::vector<uint16_t> empty(src);
    std::fill(empty.begin() + (ptrdiff_t)empty.size() / 4, empty.end(), 0);
    add_bilateral("bilateral_mostly_empty" + size, w, h, empty);
    bench_copy("u16_to_u16" + size, px, src.size() * 2);
#ifdef TQCAM_HAVE_OPENCV
    cv::setNumThreads(1);
#ifdef TQCAM_HAVE_XIMGPROC
    cv::Mat z(h, w, CV_32F);
    std::copy(src.begin(), src.end(), z.begin<float>());
    bench_row("bilateral" + size + "/cv dtFilter", px, [z, out = cv::Mat()]() mutable {
        cv::ximgproc::dtFilter(z, z, out, 5, 400, cv::ximgproc::DTF_RF, 1);
    });
#endif
    const cv::Mat image(h, w, CV_16U, const_cast<uint16_t *>(src.data()));
    bench_row("flypix_k3" + size + "/cv::Sobel x 2", px,
              [m = image.clone(), gx = cv::Mat(), gy = cv::Mat()]() mutable {
                  cv::Sobel(m, gx, CV_32F, 1, 0);
                  cv::Sobel(m, gy, CV_32F, 0, 1);
              });
    bench_row("fhole_k3" + size + "/cv::dilate", px,
              [m = image.clone(), out = cv::Mat()]() mutable { cv::dilate(m, out, cv::Mat()); });
#endif
}

static const bool added = [] {
    add_size(320, 240);
    add_size(640, 480);
    return true;
}();
