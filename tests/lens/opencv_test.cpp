// The undistortion map beside OpenCV's own: its camera matrix that keeps all of the source in view, its map,
// its nearest-neighbour gather.
#ifdef TQCAM_HAVE_OPENCV
#include <cmath>
#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "tq_lens.h"

TEST(OpenCv, MapsAgree)
{
    const struct {
        int w, h;
        std::vector<double> coef;
    } cases[] = {
        {320, 240, {}},
        {320, 240, {-0.31, 0.12, 0.0007, -0.0004}},
        {640, 480, {-0.25, 0.09, -0.001, 0.0008, -0.02}},
        {640, 480, {0.8, 0.2, 0.0003, 0.0002, 0.01, 1.1, 0.4, 0.05}},
        {160, 60, {0.15, -0.05, 0, 0}},
    };
    for (const auto &c : cases) {
        const int n = c.w * c.h;
        tqcam_lens_param_t lens = {};
        lens.cx = c.w * 0.49;
        lens.cy = c.h * 0.52;
        lens.fx = c.w * 0.7;
        lens.fy = c.w * 0.71;
        lens.img_w = (uint32_t)c.w;
        lens.img_h = (uint32_t)c.h;
        lens.n_dcoef = (int)c.coef.size();
        for (size_t i = 0; i < c.coef.size(); i++)
            lens.dcoef[i] = c.coef[i];
        tq_calib_len_map_t map = {};
        tq_calib_len_init_map(&map, &lens);
        ASSERT_TRUE(map.inited);

        const cv::Mat A = (cv::Mat_<double>(3, 3) << lens.fx, 0, lens.cx, 0, lens.fy, lens.cy, 0, 0, 1);
        const cv::Mat dist(c.coef.empty() ? std::vector<double>(4) : c.coef, true);
        const cv::Size size(c.w, c.h);
        cv::Rect roi;
        const cv::Mat N = cv::getOptimalNewCameraMatrix(A, dist, size, 1.0, size, &roi);
        cv::Mat u, v;
        cv::initUndistortRectifyMap(A, dist, cv::Mat(), N, size, CV_32FC1, u, v);

        // Same source, but for coordinates that lie on the bound between two pixels.
        int off = 0, none = 0;
        for (int i = 0; i < n; i++) {
            const int a = (int)std::floor(u.at<float>(i / c.w, i % c.w) + 0.5f);
            const int b = (int)std::floor(v.at<float>(i / c.w, i % c.w) + 0.5f);
            const uint32_t at = map.map[i];
            if (at == TQ_CALIB_LEN_NO_SOURCE) {
                none++;
                off += a >= 0 && b >= 0 && a < c.w && b < c.h;
                continue;
            }
            // Down to -1.5 a coordinate still counts as pixel 0 here.
            const int da = (int)(at % c.w) - std::max(a, 0), db = (int)(at / c.w) - std::max(b, 0);
            off += da != 0 || db != 0;
            ASSERT_LE(std::abs(da) + std::abs(db), 1) << i % c.w << "," << i / c.w;
        }
        EXPECT_LE(off, n / 2000) << c.w << " x " << c.h << ", " << c.coef.size() << " coefficients";
        EXPECT_LT(none, n / 2);
        EXPECT_NEAR(map.roi_x, roi.x, 1);
        EXPECT_NEAR(map.roi_y, roi.y, 1);
        EXPECT_NEAR(map.roi_w, roi.width, 2);
        EXPECT_NEAR(map.roi_h, roi.height, 2);
        tq_calib_len_uninit_map(&map);
    }
}
#endif
