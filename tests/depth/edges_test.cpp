// Fly-pixel and hole filters against rules written down once more, one line a pixel, and on small cases by
// hand.
#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tq_depth.h"

using image_t = std::vector<uint16_t>;

static const int kSizes[][2] = {{2, 2}, {3, 5}, {7, 2}, {16, 16}, {37, 11}};

static uint16_t at(const image_t &v, int w, int h, int x, int y)
{
    return v[(size_t)std::clamp(y, 0, h - 1) * w + std::clamp(x, 0, w - 1)];
}

static image_t random_image(int w, int h, uint32_t seed)
{
    static const uint16_t extremes[] = {0, 0, 1, 32767, 32768, 65500, 65535};
    std::mt19937 rng(seed);
    image_t v((size_t)w * h);
    for (uint16_t &p : v)
        p = rng() % 3 == 0 ? extremes[rng() % 7] : (uint16_t)(rng() % 2 ? 3000 + rng() % 200 : rng());
    return v;
}

TEST(FlyPixel, FollowsTheRule)
{
    for (const auto [w, h] : kSizes) {
        const image_t src = random_image(w, h, 11);
        for (const int thr : {0, 1, 16, 32, 63, 64, 100000, 2147483647, -5, -2147483647 - 1}) {
            image_t k3(src.size()), k5(src.size());
            tq_flypix_u16_k3(k3.data(), src.data(), w, h, thr);
            tq_flypix_u16_k5(k5.data(), src.data(), w, h, thr);
            for (int y = 0; y < h; y++) {
                for (int x = 0; x < w; x++) {
                    const auto p = [&](int dx, int dy) { return (__int128)at(src, w, h, x + dx, y + dy); };
                    __int128 gx = 0, gy = 0, gx5 = 0, gy5 = 0;
                    for (int d = -1; d <= 1; d++) {
                        gx += (2 - d * d) * (p(1, d) - p(-1, d));
                        gy += (2 - d * d) * (p(d, 1) - p(d, -1));
                    }
                    for (int d = -2; d <= 2; d++) {
                        gx5 += p(-2, d) + p(-1, d) - p(1, d) - p(2, d);
                        gy5 += p(d, -2) + p(d, -1) - p(d, 1) - p(d, 2);
                    }
                    const __int128 c = p(0, 0);
                    ASSERT_EQ(k3[(size_t)y * w + x], c * c * thr / 1024 < (gx * gx + gy * gy) / 4 ? 0 : c)
                        << w << "x" << h << " thr " << thr << " at " << x << "," << y;
                    ASSERT_EQ(k5[(size_t)y * w + x], (thr * c * c) >> 8 < (gx5 * gx5 + gy5 * gy5) / 4 ? 0 : c)
                        << w << "x" << h << " thr " << thr << " at " << x << "," << y;
                }
            }
        }
    }
}

TEST(HoleFill, TakesTheLargestNeighbour)
{
    for (const auto [w, h] : kSizes) {
        const image_t src = random_image(w, h, 12);
        for (const int in_place : {0, 1}) {
            for (const int r : {1, 2}) {
                image_t from = src, got(src.size());
                (r == 1 ? tq_fhole_u16_k3 : tq_fhole_u16_k5)(got.data(), src.data(), w, h, in_place);
                for (int y = 0; y < h; y++) {
                    for (int x = 0; x < w; x++) {
                        int want = (int16_t)from[(size_t)y * w + x];
                        if (want < 1) {
                            want = -32768;
                            for (int i = 0; i < (2 * r + 1) * (2 * r + 1); i++)
                                if (i != 2 * r * (r + 1))
                                    want =
                                        std::max<int>(want, (int16_t)at(from, w, h, x + i % (2 * r + 1) - r,
                                                                        y + i / (2 * r + 1) - r));
                        }
                        ASSERT_EQ(got[(size_t)y * w + x], (uint16_t)want)
                            << w << "x" << h << " in place " << in_place << " r " << r << " at " << x << ","
                            << y;
                        if (in_place)
                            from[(size_t)y * w + x] = (uint16_t)want;
                    }
                }
            }
        }
    }
}

// The pairwise choice comes down to the first nearest one of a fixed order, and what was filled fills on.
TEST(ChamferFill, TakesTheFirstNearestNeighbour)
{
    const image_t src = {0, 0, 11, 0, 0, 12, 0, 0, 65500, 0, 0, 0, 0, 0, 13, 0, 14, 0, 0, 0};
    image_t got(20);
    tq_fhole_u16_edt3(got.data(), src.data(), 5, 4);
    EXPECT_EQ(got, (image_t{12, 11, 11, 11, 11, 12, 11, 11, 11, 13, 12, 12, 14, 13, 13, 14, 14, 14, 13, 13}));
}

TEST(DepthFilters, RefuseSmallSizes)
{
    const image_t src = {9, 9, 9};
    image_t dst(3, 77);
    for (const auto filter : {tq_fhole_u16_k3, tq_fhole_u16_k5, tq_flypix_u16_k5, tq_flypix_u16_k3}) {
        filter(dst.data(), src.data(), 1, 3, 0);
        filter(dst.data(), src.data(), -2, -2, 0);
    }
    tq_fhole_u16_edt3(dst.data(), src.data(), 3, 1);
    EXPECT_EQ(dst, image_t(3, 77));
}
