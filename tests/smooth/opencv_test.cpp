// The medians beside OpenCV's, which repeat the border too.
#ifdef TQCAM_HAVE_OPENCV
#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "tq_filter.h"

TEST(OpenCv, MediansAgree)
{
    std::mt19937 rng(5);
    for (const auto &[w, h] : {std::pair{320, 240}, {33, 17}, {160, 60}}) {
        cv::Mat src(h, w, CV_16U), want, small(h, w, CV_8U);
        for (int i = 0; i < w * h; i++) {
            src.at<uint16_t>(i / w, i % w) = (uint16_t)(rng() % 40 ? 1500 + rng() % 60 : rng());
            small.at<uint8_t>(i / w, i % w) = (uint8_t)(rng() % 10 ? 100 + rng() % 20 : rng());
        }
        std::vector<uint16_t> dst((size_t)w * h), wide(small.begin<uint8_t>(), small.end<uint8_t>());
        for (const int kernel : {3, 5}) {
            cv::medianBlur(src, want, kernel);
            tq_median2d_u16(dst.data(), src.ptr<uint16_t>(), w, h, kernel);
            EXPECT_EQ(memcmp(dst.data(), want.data, dst.size() * 2), 0) << kernel << " " << w << "x" << h;
        }
        // OpenCV has larger ones for bytes only.
        for (const int kernel : {7, 9, 15}) {
            cv::medianBlur(small, want, kernel);
            tq_median2d_u16(dst.data(), wide.data(), w, h, kernel);
            EXPECT_TRUE(std::equal(dst.begin(), dst.end(), want.begin<uint8_t>()))
                << kernel << " " << w << "x" << h;
        }
    }
}
#endif
