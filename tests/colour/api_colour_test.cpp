// The colour functions of the camera API: pixel formats, options, gray images by their own mean.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "api/colour.h"
#include "tqcam.h"

using bytes_t = std::vector<uint8_t>;

TEST(ApiColour, FormatsLengthsRefusalsAndOptions)
{
    tq_cmap_init(colour_map(), 30000);
    tqcam_cmap_palette_set(16);
    const uint16_t src[] = {100}; // in palette 16 the three channels differ here
    uint8_t r, g, b;
    ASSERT_EQ(tq_cmap_u16_to_rgb(colour_map(), src, 1, &r, &g, &b, 3, 0, 200, false), 0);
    const std::pair<int, bytes_t> cases[] = {{0, {r, g, b}},      {1, {r, g, b, 255}}, {2, {b, g, r}},
                                             {3, {g, b, r, 255}}, {4, {r, g, b, 0}},   {5, {g, b, r, 0}},
                                             {6, {255, r, g, b}}, {7, {255, b, g, r}}};
    for (const auto &[format, want] : cases) {
        bytes_t u(want.size(), 0x77);
        EXPECT_EQ(tqcam_cmap_dist_u16_to_RGB(u.data(), (int)u.size(), src, 1, format, 0, 200, nullptr), 1);
        EXPECT_EQ(u, want) << format;
    }

    const std::vector<uint16_t> row(100, 51);
    const float low[] = {10, 10, 10, 90};
    bytes_t dst(12, 0x77);
    EXPECT_EQ(tqcam_cmap_dist_u16_to_RGB(dst.data(), 8, row.data(), 100, 8, 0, 100, nullptr), -22);
    EXPECT_EQ(tqcam_cmap_dist_u16_to_RGB(dst.data(), -9, row.data(), 100, 1, 0, 100, nullptr), 0);
    EXPECT_EQ(tqcam_cmap_dist_u16_to_RGB(dst.data(), 10, row.data(), 100, 1, 0, 100, nullptr), 2);
    EXPECT_EQ(dst[8], 0x77);
    const tqcam_cmap_opt_t gray = {35, 0}, equal = {35, 1}; // for one call
    EXPECT_EQ(tqcam_cmap_dist_u16_to_RGB(dst.data(), 3, row.data(), 1, 0, 0, 255, &gray), 1);
    EXPECT_EQ(dst[0], 51);
    EXPECT_EQ(tqcam_cmap_palette_get(), 16u);
    EXPECT_EQ(tqcam_cmap_dist_f32_to_RGB(dst.data(), 12, low, 4, 0, &equal, 0, 100), 4);
    EXPECT_GT(dst[0], 185); // three of four pixels lie at or below
    tq_cmap_uninit(colour_map());
}

TEST(ApiColour, GrayByItsOwnMean)
{
    const struct {
        std::vector<uint16_t> src;
        int balance;
        bytes_t want;
    } cases[] = {
        {{100, 200, 300}, 640, {64, 128, 192}},  // the mean lands at 128
        {{100, 200, 300}, 740, {128, 255, 255}}, // brighter
        {{32768, 65500}, 640, {255, 255}},       // no valid sample: divisor 1
        {{1, 2, 3}, -2147483647 - 1, {0, 0, 0}}, // no overflow
    };
    for (const auto &c : cases) {
        const int n = (int)c.src.size();
        const std::vector<float> src_f(c.src.begin(), c.src.end());
        bytes_t u(n), f(n);
        EXPECT_EQ(tqcam_cmap_gray_u16_to_IR(u.data(), 0, c.src.data(), n, c.balance), n);
        EXPECT_EQ(tqcam_cmap_gray_f32_to_IR(f.data(), 0, src_f.data(), n, c.balance), n);
        EXPECT_EQ(u, c.want);
        EXPECT_EQ(f, c.want);
    }
    // Of 100 and 299 the mean is 199.5.
    const float odd[] = {100.9f, 299.2f, NAN, INFINITY, -INFINITY, -0.9f};
    bytes_t out(6);
    EXPECT_EQ(tqcam_cmap_gray_f32_to_IR(out.data(), 6, odd, 3, 640), 3);
    EXPECT_EQ(out, (bytes_t{64, 192, 0, 0, 0, 0}));
    for (const int balance : {0, 639, 640, 641})
        EXPECT_EQ(tqcam_cmap_gray_f32_to_IR(out.data(), 6, odd, 6, balance), 6);
}
