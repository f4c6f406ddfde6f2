#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tq_filter.h"

namespace {

using Image = std::vector<uint16_t>;

// Noise with the values that break comparisons and sums, and flat parts.
Image noise(int w, int h, uint32_t seed)
{
    static const uint16_t extreme[] = {0, 1, 32767, 32768, 65500, 65535};
    std::mt19937 rng(seed);
    Image img((size_t)w * h);
    for (auto &v : img)
        v = rng() % 4 == 0 ? extreme[rng() % 6] : rng() % 3 ? (uint16_t)(1000 + rng() % 50) : (uint16_t)rng();
    return img;
}

// The window of a pixel, row by row, with coordinates clamped.
template <class T> std::vector<uint64_t> window(const std::vector<T> &img, int w, int h, int x, int y, int k)
{
    std::vector<uint64_t> v;
    for (int i = y - k / 2; i <= y + k / 2; i++)
        for (int j = x - k / 2; j <= x + k / 2; j++)
            v.push_back(img[(size_t)w * std::clamp(i, 0, h - 1) + std::clamp(j, 0, w - 1)]);
    return v;
}

const int sizes[][2] = {{2, 2},  {2, 9},  {9, 2},  {3, 3},  {5, 4},
                        {31, 7}, {33, 6}, {64, 5}, {65, 9}, {100, 37}};

using Rule = std::function<uint64_t(std::vector<uint64_t>)>;

template <class T, class F> void expect_rule(F filter, int k, Rule rule)
{
    for (const auto &[w, h] : sizes) {
        const Image img = noise(w, h, (uint32_t)(w * 31 + h));
        std::vector<T> src(img.begin(), img.end()), dst(src.size(), 7);
        if (sizeof(T) == 4)
            for (auto &v : src)
                v *= 65537u;
        if (k >= 2 * std::min(w, h) && k > 5)
            continue; // larger than the general median takes
        filter(dst.data(), src.data(), w, h);
        for (int y = 0; y < h; y++) {
            for (int x = 0; x < w; x++)
                ASSERT_EQ(dst[(size_t)w * y + x], rule(window(src, w, h, x, y, k)))
                    << w << "x" << h << " k " << k << " at " << x << "," << y;
        }
    }
}

uint64_t median(std::vector<uint64_t> v)
{
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

uint64_t box(std::vector<uint64_t> v)
{
    uint64_t sum = 0;
    for (uint64_t x : v)
        sum += x;
    return (sum - v[4]) / 8;
}

uint64_t gauss(std::vector<uint64_t> v)
{
    const int weights[] = {1, 2, 1, 2, 4, 2, 1, 2, 1};
    uint64_t sum = 0;
    for (int i = 0; i < 9; i++)
        sum += v[i] * weights[i];
    return sum / 16;
}

} // namespace

TEST(Window, FiltersFollowTheirRule)
{
    expect_rule<uint16_t>(tq_median2d_u16_k3, 3, median);
    expect_rule<uint16_t>(tq_median2d_u16_k5, 5, median);
    expect_rule<uint16_t>(tq_box2d_u16_k3, 3, box);
    expect_rule<uint32_t>(tq_box2d_u32_k3, 3, box);
    expect_rule<uint16_t>(tq_gauss2d_u16_k3, 3, gauss);
    for (int k = 3; k < 40; k += 2)
        expect_rule<uint16_t>(
            [k](uint16_t *dst, const uint16_t *src, int w, int h) { tq_median2d_u16(dst, src, w, h, k); }, k,
            median);
}

// From 257 pixels a side on the counts of a flat window pass 16 bits.
TEST(Window, LargeKernelCounts)
{
    const int w = 140, h = 150;
    Image img(w * h, 500), dst(w * h);
    img[0] = 0;
    for (int k : {255, 257, 279}) {
        tq_median2d_u16(dst.data(), img.data(), w, h, k);
        // The corner stands for a quarter of the window of a pixel near it, not for half.
        EXPECT_EQ(dst, Image(w * h, 500)) << k;
    }
}

TEST(Window, RefusesSizesAndKernels)
{
    LogCapture log;
    const Image src(64, 100);
    Image dst(64, 7);
    const std::vector<std::function<void(int, int)>> filters = {
        [&](int w, int h) { tq_median2d_u16_k3(dst.data(), src.data(), w, h); },
        [&](int w, int h) { tq_median2d_u16_k5(dst.data(), src.data(), w, h); },
        [&](int w, int h) { tq_median2d_u16(dst.data(), src.data(), w, h, 3); },
        [&](int w, int h) { tq_box2d_u16_k3(dst.data(), src.data(), w, h); },
        [&](int w, int h) { tq_gauss2d_u16_k3(dst.data(), src.data(), w, h); },
        [&](int w, int h) { tq_gauss2d_iir_u16(dst.data(), src.data(), w, h, 1); },
    };
    for (const auto &filter : filters)
        for (const auto &[w, h] : {std::pair{1, 8}, {8, 1}, {0, 0}, {-5, 8}, {8, INT32_MIN}})
            filter(w, h);
    EXPECT_EQ(log.count("wrong parameter:w/h="), 30);
    for (int k : {4, 1, 0, -7, 17, INT32_MAX})
        tq_median2d_u16(dst.data(), src.data(), 8, 8, k);
    EXPECT_EQ(log.count("[tq_median2d_u16] wrong parameter:w/h/kernel=8/8/"), 6);
    tqalgo_gauss2d_iir_u16(dst.data(), 8, 4, src.data(), 8, 8, 1);
    EXPECT_EQ(log.count("[tqalgo_gauss2d_iir_u16]wrong parameter: src wxh = 8x8, dst wxh = 4x8\n"), 1);
    EXPECT_EQ(dst, Image(64, 7));
}
