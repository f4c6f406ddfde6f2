#include <cstdint>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "tq_cmap.h"

using u16s = std::vector<uint16_t>;
using f32s = std::vector<float>;

TEST(Histeq, SmallImagesByHand)
{
    const struct {
        const char *what;
        u16s src;
        uint16_t vmin, vmax;
        int bins;
        bool drop;
        u16s want;
    } cases[] = {
        // Bins of 25: counts 1 2 0 1; running 1 3 3 4; lut 25 75 75 100.
        {"interpolates in a bin", {10, 30, 40, 90}, 0, 100, 4, true, {45, 75, 75, 100}},
        {"drops both ends", {0, 10, 30, 40, 90, 100, 65535}, 0, 100, 4, true, {0, 45, 75, 75, 100, 0, 0}},
        // Running 2 4 4 7 of 7; lut 28 57 57 100.
        {"counts both ends",
         {0, 10, 30, 40, 90, 100, 65535},
         0,
         100,
         4,
         false,
         {28, 39, 57, 57, 100, 100, 100}},
        {"bins of one value", {1, 2, 2, 3}, 0, 4, 1000, true, {1, 3, 3, 4}},
        {"ends swapped", {5, 60, 600}, 100, 50, 4, true, {0, 0, 0}},
        {"widest range", {1, 65534}, 0, 65535, 65535, true, {32767, 65535}},
    };
    for (const auto &c : cases) {
        u16s got(c.src);
        const int n = (int)got.size();
        EXPECT_EQ(tq_cmap_histeq_u16(got.data(), got.data(), n, c.vmin, c.vmax, c.bins, c.drop),
                  0); // in place
        EXPECT_EQ(got, c.want) << c.what;
    }
}

TEST(Histeq, FloatBinsAreNotRoundedUp)
{
    // Bins of 33.333: counts 2 1 1; running 2 3 4 of 4; lut 50 75 100.
    const f32s src = {10, 20, 50, 90, 0, 100, std::numeric_limits<float>::quiet_NaN()};
    f32s got(src.size());
    EXPECT_EQ(tq_cmap_histeq_f32(got.data(), src.data(), (int)src.size(), 0, 100, 3, true), 0);
    const float want[] = {57.5f, 65, 87.5f, 100, 0, 0, 0};
    for (size_t i = 0; i < src.size(); i++)
        EXPECT_NEAR(got[i], want[i], 1e-4f) << i;
    EXPECT_EQ(tq_cmap_histeq_f32(got.data(), src.data(), 1, 0, 9, 0, true), -22); // no bins
    EXPECT_EQ(tq_cmap_histeq_f32(got.data(), src.data(), 0, 0, 9, 3, true), -22); // nor pixels
}
