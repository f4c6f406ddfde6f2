// Point clouds and undistortion.
#include "bench_support.h"

#include <memory>

#include "tq_lens.h"
#include "tq_pcl.h"

#ifdef TQCAM_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif
#ifdef TQCAM_HAVE_RGBD
#include <opencv2/rgbd.hpp>
#endif

static void add_size(int w, int h)
{
    const double px = (double)w * h;
    const int n = w * h;
    const std::string size = "/" + std::to_string(w) + "x" + std::to_string(h);
    const std::vector<uint16_t> src = bench_scene(w, h, 3);
    std::vector<uint16_t> dst(src.size());
    std::vector<float> metres(src.size()), tbl(src.size(), 0.01f), points(4 * src.size());
    for (size_t i = 0; i < src.size(); i++)
        metres[i] = (float)src[i] * 0.001f;
    const std::vector<float> lens = {w * 0.49f, h * 0.52f, w * 0.7f, w * 0.7f};

    bench_forms("pcl_xyz" + size, px, [=]() mutable {
        tq_pcl_get_xyzd_f32(points.data(), metres.data(), nullptr, w, h, lens.data(), nullptr, 0, 0);
    });
    bench_forms("pcl_xyz_table" + size, px, [=]() mutable {
        tq_pcl_get_xyzd_f32(points.data(), metres.data(), tbl.data(), w, h, lens.data(), nullptr, 0, 0);
    });
    bench_forms("pcl_xyzd" + size, px, [=]() mutable {
        tq_pcl_get_xyzd_f32(points.data(), metres.data(), nullptr, w, h, lens.data(), metres.data(), 0, 0);
    });
    bench_forms("pcl_xyz_u16" + size, px, [=]() mutable {
        tq_pcl_get_xyzd_u16(points.data(), src.data(), nullptr, w, h, lens.data(), nullptr, 0, 0);
    });
    bench_copy("pcl_xyz" + size, px, src.size() * 8); // 4 bytes read and 12 written
    bench_copy("pcl_xyzd" + size, px, src.size() * 12);

    tqcam_lens_param_t param = {};
    param.cx = lens[0];
    param.cy = lens[1];
    param.fx = param.fy = lens[2];
    param.img_w = (uint32_t)w;
    param.img_h = (uint32_t)h;
    param.n_dcoef = 4;
    const double coef[] = {-0.31, 0.12, 0.0007, -0.0004};
    for (int i = 0; i < 4; i++)
        param.dcoef[i] = coef[i];
    const std::shared_ptr<tq_calib_len_map_t> map(new tq_calib_len_map_t(), [](tq_calib_len_map_t *m) {
        tq_calib_len_uninit_map(m);
        delete m;
    });
    tq_calib_len_init_map(map.get(), &param);
    bench_forms("undistort_u16" + size, px,
                [=]() mutable { tq_calib_len_undistort_u16(map.get(), dst.data(), n, src.data(), w, h, 0); });
    bench_forms("undistort_f32" + size, px, [=]() mutable {
        tq_calib_len_undistort_f32(map.get(), points.data(), n, metres.data(), w, h, 0);
    });
    bench_copy("undistort_u16" + size, px, src.size() * 4); // 2 and 4 bytes read, 2 written

#ifdef TQCAM_HAVE_OPENCV
    cv::setNumThreads(1);
    const cv::Mat image = cv::Mat(h, w, CV_16U, const_cast<uint16_t *>(src.data())).clone();
    cv::Mat u(h, w, CV_32F), v(h, w, CV_32F), fixed, none;
    for (int i = 0; i < n; i++) {
        const uint32_t at = map->map[i];
        const bool has = at != TQ_CALIB_LEN_NO_SOURCE;
        u.at<float>(i / w, i % w) = has ? (float)(at % (uint32_t)w) : -5;
        v.at<float>(i / w, i % w) = has ? (float)(at / (uint32_t)w) : -5;
    }
    cv::convertMaps(u, v, fixed, none, CV_16SC2, true);
    bench_row("undistort_u16" + size + "/cv::remap nearest", px,
              [=, out = cv::Mat()]() mutable { cv::remap(image, out, fixed, cv::Mat(), cv::INTER_NEAREST); });
#endif
#ifdef TQCAM_HAVE_RGBD
    const cv::Mat K = (cv::Mat_<float>(3, 3) << lens[2], 0, lens[0], 0, lens[3], lens[1], 0, 0, 1);
    const cv::Mat z = cv::Mat(h, w, CV_32F, metres.data()).clone();
    bench_row("pcl_xyz" + size + "/cv depthTo3d", px,
              [=, out = cv::Mat()]() mutable { cv::rgbd::depthTo3d(z, K, out); });
#endif
}

static const bool added = [] {
    add_size(320, 240);
    add_size(640, 480);
    return true;
}();
