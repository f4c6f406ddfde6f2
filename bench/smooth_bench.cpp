// Medians, means, Gaussians and element conversions.
#include "bench_support.h"

#include "tq_filter.h"

#ifdef TQCAM_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

using window_t = void (*)(uint16_t *, const uint16_t *, int, int);

// What a pixel costs who sorts each window by itself.
static void nth_median(uint16_t *dst, const uint16_t *src, int w, int h, int kernel)
{
    const int r = kernel / 2;
    std::vector<uint16_t> v;
    for (int y = 0; y < h; y++) {
        for (int x = 0; x < w; x++) {
            v.clear();
            for (int i = y - r; i <= y + r; i++)
                for (int j = x - r; j <= x + r; j++)
                    v.push_back(
                        src[(size_t)w * (size_t)std::clamp(i, 0, h - 1) + (size_t)std::clamp(j, 0, w - 1)]);
            std::nth_element(v.begin(), v.begin() + (ptrdiff_t)v.size() / 2, v.end());
            dst[(size_t)w * (size_t)y + (size_t)x] = v[v.size() / 2];
        }
    }
}

static void add_size(int w, int h)
{
    const double px = (double)w * h;
    const int n = w * h;
    const std::string size = "/" + std::to_string(w) + "x" + std::to_string(h);
    const std::vector<uint16_t> src = bench_scene(w, h, 3);
    std::vector<uint16_t> dst(src.size());
    const std::vector<float> metres(src.begin(), src.end());
    std::vector<float> fdst(src.size());

    const std::pair<const char *, window_t> windows[] = {{"median_k3", tq_median2d_u16_k3},
                                                         {"median_k5", tq_median2d_u16_k5},
                                                         {"box_k3", tq_box2d_u16_k3},
                                                         {"gauss_k3", tq_gauss2d_u16_k3}};
    for (const auto &[name, filter] : windows)
        bench_forms(name + size, px, [=, f = filter]() mutable { f(dst.data(), src.data(), w, h); });
    for (const int kernel : {7, 15}) {
        const std::string name = "median_" + std::to_string(kernel) + size;
        bench_row(name + "/counts", px,
                  [=]() mutable { tq_median2d_u16(dst.data(), src.data(), w, h, kernel); });
        if (kernel == 7 && w == 320)
            bench_row(name + "/nth_element", px,
                      [=]() mutable { nth_median(dst.data(), src.data(), w, h, kernel); });
    }
    bench_forms("gauss_iir_f32" + size, px,
                [=]() mutable { tq_gauss2d_iir_f32(fdst.data(), metres.data(), w, h, 3.0f); });
    bench_forms("gauss_iir_u16" + size, px,
                [=]() mutable { tq_gauss2d_iir_u16(dst.data(), src.data(), w, h, 3.0f); });
    bench_forms("conv_u16_f32" + size, px,
                [=]() mutable { tq_conv_u16_f32(fdst.data(), src.data(), n, 0.001f); });
    bench_forms("conv_f32_u16" + size, px,
                [=]() mutable { tq_conv_f32_u16(dst.data(), metres.data(), n, 1.0f); });
    bench_copy("u16_to_u16" + size, px, src.size() * 2);
    bench_copy("u16_to_f32" + size, px, src.size() * 3); // as many bytes, half read and half written
    bench_copy("f32_to_f32" + size, px, src.size() * 4);

#ifdef TQCAM_HAVE_OPENCV
    cv::setNumThreads(1);
    const cv::Mat image = cv::Mat(h, w, CV_16U, const_cast<uint16_t *>(src.data())).clone();
    for (const int kernel : {3, 5})
        bench_row("median_k" + std::to_string(kernel) + size + "/cv::medianBlur", px,
                  [=, out = cv::Mat()]() mutable { cv::medianBlur(image, out, kernel); });
    cv::Mat bytes;
    image.convertTo(bytes, CV_8U, 1.0 / 16);
    for (const int kernel : {7, 15})
        bench_row("median_" + std::to_string(kernel) + size + "/cv::medianBlur u8", px,
                  [=, out = cv::Mat()]() mutable { cv::medianBlur(bytes, out, kernel); });
    bench_row("box_k3" + size + "/cv::blur", px, [=, out = cv::Mat()]() mutable {
        cv::blur(image, out, {3, 3});
    });
    bench_row("gauss_k3" + size + "/cv::GaussianBlur", px, [=, out = cv::Mat()]() mutable {
        cv::GaussianBlur(image, out, {3, 3}, 0);
    });
    cv::Mat z;
    image.convertTo(z, CV_32F);
    bench_row("gauss_iir_f32" + size + "/cv::GaussianBlur sigma 3", px, [=, out = cv::Mat()]() mutable {
        cv::GaussianBlur(z, out, {0, 0}, 3);
    });
    bench_row("conv_u16_f32" + size + "/cv convertTo", px,
              [=, out = cv::Mat()]() mutable { image.convertTo(out, CV_32F, 0.001); });
#endif
}

static const bool added = [] {
    add_size(320, 240);
    add_size(640, 480);
    return true;
}();
