// The colour functions of the camera API: pixel formats, options, gray images by their own mean.
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "api/colour.h"
#include "tqcam.h"

class ApiColour : public testing::Test {
  protected:
    void SetUp() override
    {
        tq_cmap_init(colour_map(), 30000);
        tqcam_cmap_palette_set(16);
    }
    void TearDown() override { tq_cmap_uninit(colour_map()); }
};

using bytes_t = std::vector<uint8_t>;

TEST_F(ApiColour, PixelFormats)
{
    const uint16_t src[] = {100}; // in palette 16 the three channels differ here
    const float src_f[] = {100};
    bytes_t rgb(3);
    ASSERT_EQ(tqcam_cmap_dist_u16_to_RGB(rgb.data(), 3, src, 1, TQCAM_PIX_RGB, 0, 200, nullptr), 1);
    const uint8_t r = rgb[0], g = rgb[1], b = rgb[2];
    EXPECT_TRUE(r != g && g != b && r != b);
    const struct {
        int format;
        bytes_t want;
    } cases[] = {{0, {r, g, b}},    {1, {r, g, b, 255}}, {2, {b, g, r}},      {3, {g, b, r, 255}},
                 {4, {r, g, b, 0}}, {5, {g, b, r, 0}},   {6, {255, r, g, b}}, {7, {255, b, g, r}}};
    for (const auto &c : cases) {
        bytes_t u(c.want.size(), 0x77), f(u);
        EXPECT_EQ(tqcam_cmap_dist_u16_to_RGB(u.data(), (int)u.size(), src, 1, c.format, 0, 200, nullptr), 1);
        EXPECT_EQ(tqcam_cmap_dist_f32_to_RGB(f.data(), (int)f.size(), src_f, 1, c.format, nullptr, 0, 200),
                  1);
        EXPECT_EQ(u, c.want) << c.format;
        EXPECT_EQ(f, c.want) << c.format;
    }
}

TEST_F(ApiColour, LengthsAndRefusals)
{
    const std::vector<uint16_t> src(100, 50);
    bytes_t dst(10, 0x77);
    EXPECT_EQ(tqcam_cmap_dist_u16_to_RGB(dst.data(), 8, src.data(), 100, 8, 0, 100, nullptr), -22);
    EXPECT_EQ(tqcam_cmap_dist_f32_to_RGB(dst.data(), 8, nullptr, 100, 0, nullptr, 0, 100), -22);
    EXPECT_EQ(tqcam_cmap_dist_u16_to_RGB(dst.data(), -9, src.data(), 100, 1, 0, 100, nullptr), 0);
    EXPECT_EQ(tqcam_cmap_dist_u16_to_RGB(dst.data(), 10, src.data(), 100, 1, 0, 100, nullptr), 2);
    EXPECT_EQ(dst[7], 255);
    EXPECT_EQ(dst[8], 0x77);
}

TEST_F(ApiColour, OptionsHoldForOneCall)
{
    const uint16_t src[] = {51};
    const float low[] = {10, 10, 10, 90};
    bytes_t dst(12);
    const tqcam_cmap_opt_t gray = {35, 0}, wrong = {64, 0}, equal = {35, 1};
    EXPECT_EQ(tqcam_cmap_dist_u16_to_RGB(dst.data(), 3, src, 1, 0, 0, 255, &gray), 1);
    EXPECT_EQ(dst[0], 51);
    EXPECT_EQ(tqcam_cmap_dist_u16_to_RGB(dst.data(), 3, src, 1, 0, 0, 255, &wrong), 1);
    EXPECT_EQ(tqcam_cmap_palette_get(), 16u);
    EXPECT_EQ(tqcam_cmap_dist_f32_to_RGB(dst.data(), 12, low, 4, 0, &equal, 0, 100), 4);
    EXPECT_GT(dst[0], 185); // three of four pixels lie at or below
}

TEST_F(ApiColour, GrayByItsOwnMean)
{
    const struct {
        const char *what;
        std::vector<uint16_t> src;
        int balance;
        bytes_t want;
    } cases[] = {
        {"the mean lands at 128", {100, 200, 300}, 640, {64, 128, 192}},
        {"a higher balance brightens", {100, 200, 300}, 740, {128, 255, 255}},
        {"mean at the balance: divisor 1", {1, 1, 1}, 641, {128, 128, 128}},
        {"no valid sample: divisor 1", {32768, 65500}, 640, {255, 255}},
        {"fractions of the mean are dropped", {1, 2}, 640, {128, 255}},
        {"no overflow", {1, 2, 3}, -2147483647 - 1, {0, 0, 0}},
    };
    for (const auto &c : cases) {
        const int n = (int)c.src.size();
        const std::vector<float> src_f(c.src.begin(), c.src.end());
        bytes_t u(n), f(n);
        EXPECT_EQ(tqcam_cmap_gray_u16_to_IR(u.data(), 0, c.src.data(), n, c.balance), n);
        EXPECT_EQ(tqcam_cmap_gray_f32_to_IR(f.data(), 0, src_f.data(), n, c.balance), n);
        EXPECT_EQ(u, c.want) << c.what;
        EXPECT_EQ(f, c.want) << c.what;
    }
    const float inf = std::numeric_limits<float>::infinity();
    const float odd[] = {100.9f, 299.2f, NAN, inf, -inf, -0.9f};
    bytes_t out(6);
    EXPECT_EQ(tqcam_cmap_gray_f32_to_IR(out.data(), 6, odd, 3, 640), 3);
    EXPECT_EQ(out, (bytes_t{64, 192, 0, 0, 0, 0})); // of 100 and 299 the mean is 199.5
    const float negative[] = {-3.0f, 2.0f};         // whole part 0 of a mean of -0.5 is above -1
    EXPECT_EQ(tqcam_cmap_gray_f32_to_IR(out.data(), 6, negative, 2, 639), 2);
    for (const int balance : {0, 639, 640, 641})
        EXPECT_EQ(tqcam_cmap_gray_f32_to_IR(out.data(), 6, odd, 6, balance), 6);
    EXPECT_EQ(tqcam_cmap_gray_u16_to_IR(nullptr, 0, nullptr, -3, 640), -3);
}
