#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tq_filter.h"

namespace {

struct Coef {
    double b1, b2, b3, B;
};

Coef coef(double sigma)
{
    if (sigma < 0.5)
        return {0.170402, -0.011035039, 0.00033983588, 0.84029317};
    const double q =
        sigma >= 2.5 ? 0.98711 * sigma - 0.9633 : 3.97156 - 4.14554 * std::sqrt(1 - 0.26891 * sigma);
    const double b0 = 1.57825 + 2.44413 * q + 1.4281 * q * q + 0.422205 * q * q * q;
    Coef c{(2.44413 * q + 2.85619 * q * q + 1.26661 * q * q * q) / b0,
           -(1.4281 * q * q + 1.26661 * q * q * q) / b0, 0.422205 * q * q * q / b0, 0};
    c.B = 1 - (c.b1 + c.b2 + c.b3);
    return c;
}

// One line in f64, there and back.
void line(double *v, int n, int stride, Coef c)
{
    std::vector<double> f(n + 3, v[0]), b(n + 3);
    for (int i = 0; i < n; i++)
        f[i + 3] = c.B * v[i * stride] + c.b1 * f[i + 2] + c.b2 * f[i + 1] + c.b3 * f[i];
    std::fill(b.begin(), b.end(), f[n + 2]);
    for (int i = n - 1; i >= 0; i--)
        v[i * stride] = b[i] = c.B * f[i + 3] + c.b1 * b[i + 1] + c.b2 * b[i + 2] + c.b3 * b[i + 3];
}

std::vector<double> reference(const std::vector<float> &src, int w, int h, double sigma)
{
    std::vector<double> v(src.begin(), src.end());
    for (int y = 0; y < h; y++)
        line(&v[(size_t)w * y], w, 1, coef(sigma));
    for (int x = 0; x < w; x++)
        line(&v[x], h, w, coef(sigma));
    return v;
}

} // namespace

TEST(GaussIir, FollowsTheRecursion)
{
    std::mt19937 rng(3);
    for (float sigma : {0.0f, 0.49f, 0.5f, 1.0f, 2.49f, 2.5f, 7.0f}) {
        for (const auto &[w, h] : {std::pair{2, 2}, {3, 5}, {17, 33}, {40, 21}, {35, 64}}) {
            std::vector<float> src((size_t)w * h), dst(src.size());
            for (auto &v : src)
                v = (float)(rng() % 5000);
            tq_gauss2d_iir_f32(dst.data(), src.data(), w, h, sigma);
            const std::vector<double> want = reference(src, w, h, sigma);
            for (size_t i = 0; i < dst.size(); i++)
                ASSERT_NEAR(dst[i], want[i], 0.05) << sigma << " " << w << "x" << h;
            tq_gauss2d_iir_f32(src.data(), src.data(), w, h, sigma); // in place
            ASSERT_EQ(src, dst);
        }
    }
}

// The formulas are an approximation, close to a Gaussian in effect: the spread of a single bright pixel says
// how close. A wrong branch for 0.5 or 2.5 would show as a jump.
TEST(GaussIir, SpreadsBySigma)
{
    const int n = 101;
    for (float sigma : {1.0f, 2.0f, 2.5f, 4.0f, 8.0f}) {
        std::vector<float> img(n * n, 0);
        img[n * n / 2] = 1e6f;
        tq_gauss2d_iir_f32(img.data(), img.data(), n, n, sigma);
        double sum = 0, var = 0;
        for (int y = 0; y < n; y++)
            for (int x = 0; x < n; x++) {
                sum += img[y * n + x];
                var += img[y * n + x] * (x - n / 2.0 + 0.5) * (x - n / 2.0 + 0.5);
            }
        EXPECT_NEAR(sum, 1e6, 1e4);
        EXPECT_NEAR(std::sqrt(var / sum), sigma, 0.25 * sigma);
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

TEST(GaussIir, SizesMustAgree)
{
    LogCapture log;
    std::vector<uint16_t> src(12, 5), dst(12, 7);
    std::vector<float> fsrc(12, 5), fdst(12, 7);
    tqalgo_gauss2d_iir_u16(dst.data(), 4, 3, src.data(), 3, 4, 1);
    tqalgo_gauss2d_iir_f32(fdst.data(), 3, 4, fsrc.data(), 3, 3, 1);
    EXPECT_EQ(dst[0], 7);
    EXPECT_EQ(fdst[0], 7);
    EXPECT_TRUE(log.has("[tqalgo_gauss2d_iir_u16]wrong parameter: src wxh = 4x3, dst wxh = 3x4\n"));
    EXPECT_TRUE(log.has("[tqalgo_gauss2d_iir_f32]wrong parameter: src wxh = 3x3, dst wxh = 4x3\n"));
    tqalgo_gauss2d_iir_f32(fdst.data(), 3, 4, fsrc.data(), 3, 4, 1);
    for (float v : fdst)
        EXPECT_NEAR(v, 5, 1e-5);
}
