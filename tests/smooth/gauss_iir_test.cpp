#include <algorithm>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "tq_filter.h"

// Answers of the recursion in f64 from a program of its own, in each of the three forms of the coefficients.
TEST(GaussIir, FollowsTheRecursion)
{
    const std::vector<float> src = {100, 4000, 0, 250, 3000, 10, 900, 77, 5, 5000, 1500, 2000};
    const struct {
        float sigma, want[12];
    } cases[] = {
        {0.3f,
         {826.14f, 2643.36f, 568.60f, 285.39f, 2062.21f, 1301.69f, 854.60f, 445.82f, 918.84f, 3356.34f,
          1770.42f, 1689.03f}},
        {1.0f,
         {1192.37f, 1617.17f, 997.48f, 671.32f, 1521.92f, 1632.12f, 1162.92f, 894.80f, 1444.89f, 1949.16f,
          1571.47f, 1356.45f}},
        {2.5f,
         {1033.52f, 1118.06f, 1119.63f, 1103.92f, 1102.11f, 1173.51f, 1169.76f, 1152.81f, 1127.13f, 1197.81f,
          1194.77f, 1178.43f}},
    };
    for (const auto &c : cases) {
        std::vector<float> img = src;
        tq_gauss2d_iir_f32(img.data(), img.data(), 4, 3, c.sigma); // in place
        for (size_t i = 0; i < img.size(); i++)
            EXPECT_NEAR(img[i], c.want[i], 0.01) << c.sigma << " at " << i;
    }
}

// Rounding carries white past 65535, and no sigma, however odd, may take the integers out of their range.
TEST(GaussIir, U16HoldsToItsRange)
{
    const int w = 64, h = 8;
    std::vector<uint16_t> src(w * h), dst(w * h);
    float most = 0;
    for (float sigma : {0.3f, 1.0f, 2.0f, 2.6f, 1e4f, 1e6f, 1e9f, -1.0f, NAN, INFINITY}) {
        std::vector<float> wide(w * h);
        for (int i = 0; i < w * h; i++)
            wide[i] = src[i] = i % w < w / 2 ? 0 : 65535;
        tq_gauss2d_iir_u16(dst.data(), src.data(), w, h, sigma);
        tq_gauss2d_iir_f32(wide.data(), wide.data(), w, h, sigma);
        for (int i = 0; i < w * h; i++) {
            most = std::max(most, wide[i]);
            ASSERT_EQ(dst[i], wide[i] > 0 ? (uint16_t)std::min(wide[i], 65535.0f) : 0) << sigma;
        }
    }
    EXPECT_GT(most, 65535.0f);
}
