#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

#include "math/trig_tables.h"
#include "tq_math.h"

using vec = std::vector<float>;

// Expected bits from the same rule in another language: products rounded to f32, sums and quotient in f64.
TEST(LineFit, RoundsProductsToF32)
{
    const vec x{1234.567f, 2345.678f, 3456.789f, 4567.891f, 5678.912f};
    const vec y{1200.125f, 2333.25f, 3401.5f, 4600.75f, 5601.0625f};
    float s = 0, o = 0, r = 0;
    tq_math_linear_LSR_f32(x.data(), y.data(), 5, &s, &o, &r);
    EXPECT_EQ(s, 0x1.fe16260000000p-1f);
    EXPECT_EQ(o, -0x1.082d600000000p+4f);
    EXPECT_EQ(r, 0x1.ffb4ca0000000p-1f);
    const uint16_t xu[] = {10, 20, 65535}, yu[] = {25, 45, 0}; // only the first two are asked for
    tq_math_linear_LSR_u16(xu, yu, 2, &s, &o, &r);
    EXPECT_EQ((vec{s, o, r}), (vec{2, 5, 1}));
    tq_math_linear_LSR_u16(xu, yu, 1, &s, &o, &r); // no line
    EXPECT_TRUE(std::isnan(s) && std::isnan(o) && std::isnan(r));
}

static void _expect_near(const float *got, const vec &want)
{
    for (size_t i = 0; i < want.size(); i++)
        EXPECT_NEAR(got[i], want[i], 1e-4) << i;
}

TEST(MultipleFit, RecoversPlanesAndPowers)
{
    const int n = 12;
    vec x(3 * n), y(n), w(n, 1);
    for (int i = 0; i < n; i++) { // the third feature is all 0
        x[i] = i;
        x[n + i] = i * i % 7;
        y[i] = 4 - 2 * x[i] + 0.5f * x[n + i];
    }
    float c[4] = {9, 9, 9, 9}, r = 0;
    y[5] = 1000;
    w[5] = 0; // a sample without weight has no say, neither in the fit nor in r
    tq_math_multiple_linear_fit_f32(x.data(), y.data(), w.data(), n, c, 4, &r);
    _expect_near(c, {4, -2, 0.5, 0});
    EXPECT_NEAR(r, 1, 1e-6);
    const uint16_t p[] = {0, 1, 2, 3, 4, 5}, q[] = {1, 6, 17, 34, 57, 86}; // 1 + 2 p + 3 p^2
    tq_math_polynomial_LSR_u16(p, q, nullptr, 6, c, 3, &r);
    _expect_near(c, {1, 2, 3});
}

TEST(OutlierFit, DropsOneShareAPassAndReportsAllButTheLast)
{
    struct {
        float ratio;
        std::vector<int> wrong;
        int max_iter, reported;
        bool exact; // the line comes out
    } cases[] = {
        {0.02f, {7}, 10, 0, true},         // one a pass at least, and the last pass isn't reported
        {0.03f, {5, 20, 33}, 10, 2, true}, // 1.2 is one a pass
        {0.08f, {5, 20, 33}, 10, 0, true}, // 3.2 is three a pass
        {0.03f, {5, 20, 33}, 3, 2, false}, // three passes fit with one outlier still there
    };
    for (const auto &c : cases) {
        vec x(40), y(40);
        std::iota(x.begin(), x.end(), 0.0f);
        std::transform(x.begin(), x.end(), y.begin(), [](float v) { return 10 + 3 * v; });
        float by = 400;
        for (int i : c.wrong)
            y[i] += by *= -1.5f;
        float coef[2] = {}, r = 0;
        int32_t idx[40], count = 40;
        tq_math_multiple_linear_fit_outlier_remove_f32(x.data(), y.data(), nullptr, 40, coef, 2, &r, idx,
                                                       &count, c.max_iter, c.ratio, 0.999f);
        EXPECT_EQ(std::abs(coef[1] - 3) < 1e-3, c.exact) << coef[1];
        EXPECT_EQ(count, c.reported);
        for (int i = 0; i < count; i++)
            EXPECT_NE(std::find(c.wrong.begin(), c.wrong.end(), idx[i]), c.wrong.end()) << idx[i];
    }
}

TEST(OutlierFit, TakesBackARemovalThatDidHarm)
{
    // A cloud without direction and one far sample that makes a line of it: without that sample r drops.
    const vec x{0, 1, 2, 3, 4, 100}, y{1, -3, 4, -2, 2, 80};
    float all[3], kept[3]; // coefficients and r
    tq_math_multiple_linear_fit_f32(x.data(), y.data(), nullptr, 6, all, 2, &all[2]);
    tq_math_multiple_linear_fit_outlier_remove_f32(x.data(), y.data(), nullptr, 6, kept, 2, &kept[2], nullptr,
                                                   nullptr, 10, 0.03f, 0.999f);
    EXPECT_EQ(vec(kept, kept + 3), vec(all, all + 3));
}

TEST(OutlierFit, SurvivesWhatMakesNoSense)
{
    const vec x{1, 2, NAN, 4, 5, 6}, y{2, 4, 6, INFINITY, 10, 3};
    for (float ratio : {-1.0f, 0.5f, 9e9f, NAN}) {
        float coef[2] = {}, r = 0;
        int32_t idx[1], count = 1; // room for fewer than are found
        tq_math_multiple_linear_fit_outlier_remove_f32(x.data(), y.data(), nullptr, 6, coef, 2, &r, idx,
                                                       &count, 10, ratio, 0.999f);
        EXPECT_FALSE(std::isfinite(coef[1]));
    }
}

TEST(Mahalanobis, CountsDeviationsSquared)
{
    const vec y{1, 2, 3, 4, 10}; // mean 4, variance 12.5
    float d[5];
    tq_mach_maha_dist_vec2avg_f32(nullptr, y.data(), 5, 0, d);
    _expect_near(d, {0.72f, 0.32f, 0.08f, 0, 2.88f});
    // Neither scale nor correlation of the columns counts, and all distances add up to (n - 1) * columns.
    const vec x{3, 1, 4, 1, 5}, mixed{2930, 860, 3790, 720, 4300}; // 1000 x - 70 y
    tq_mach_maha_dist_vec2avg_f32(x.data(), y.data(), 5, 1, d);
    const vec plain(d, d + 5);
    EXPECT_NEAR(std::accumulate(d, d + 5, 0.0), 8, 1e-4);
    tq_mach_maha_dist_vec2avg_f32(mixed.data(), y.data(), 5, 1, d);
    _expect_near(d, plain);
}

TEST(Median, TakesTheUpperMiddle)
{
    const int16_t v[] = {3, 1, 2, 4, -5, -1, 2};
    EXPECT_EQ(tq_math_get_median_i16(v, 4), 3);
    EXPECT_EQ(tq_math_get_median_i16(v, 256 + 3), 2); // n is taken as 8 bits
    EXPECT_EQ(tq_math_get_median_i16(v + 4, 2), 65535);
}

TEST(TrigTables, FollowTheirRules)
{
    const double turn = 2 * std::acos(-1.0);
    for (int i = 0; i < ARCTAN2_LUT_NUM; i++)
        ASSERT_EQ(g_atan2_LUT[i], (uint16_t)std::round(std::atan2(i, 4095) * 32768 / turn)) << i;
    for (int i = 0; i < SIN_LUT_NUM; i++) // kept with six digits
        ASSERT_NEAR(g_sin_LUT[i], std::sin(turn * i / SIN_LUT_NUM), 6e-7) << i;
}
