#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tq_cmap.h"

struct Map : tq_cmap_t {
    explicit Map(int entries = 30000) { tq_cmap_init(this, entries); }
    ~Map() { tq_cmap_uninit(this); }
};

TEST(CmapColor, MarkersAndRange)
{
    Map m;
    const std::pair<int, uint32_t> cases[] = {
        {65400, 0x8000FF}, {65500, 0xFF0EA9}, {-5, 0},          {0, 0},
        {4001, 0},                                              // markers, and what is outside
        {1, 0x0000BF},     {2000, 0x7FFF7F},  {4000, 0x7F0000}, // near is red, far is blue
    };
    for (const auto &[value, colour] : cases)
        EXPECT_EQ(tq_cmap_get_color(&m, value), colour) << value;
}

// Ranges that aren't any, and scales that don't fit the range any more, stay inside table and palette.
TEST(Cmap, OddValuesAndRanges)
{
    Map m;
    tq_cmap_set_range(&m, 900, 100);
    tq_cmap_set_range(&m, 7, 7); // leaves the range
    EXPECT_EQ(std::pair(m.vmin, m.vmax), std::pair(100.0f, 900.0f));
    const float src[] = {NAN, -INFINITY, INFINITY, -3e38f, 0, 1e-40f, 4000, 3e38f};
    uint8_t out[9 * 4];
    for (const float lo : src) {
        for (const float hi : src) {
            for (const int v : {-2147483647 - 1, -1, 0, 101, 500, 900, 2147483647}) {
                EXPECT_LE(tq_cmap_get_color(&m, v), 0xFFFFFFu);
                tq_cmap_set_range(&m, lo, hi);
            }
            memset(out, 0x5A, sizeof out);
            EXPECT_EQ(tq_cmap_f32_to_rgb(&m, src, 8, out + 1, out + 2, out + 3, 4, lo, hi, true), 0);
            EXPECT_EQ(tq_cmap_f32_to_rgb(&m, src, 8, out + 1, out + 2, out + 3, 4, lo, hi, false), 0);
            for (int i = 0; i < 36; i += i < 32 ? 4 : 1)
                EXPECT_EQ(out[i], 0x5A) << i; // the fourth bytes and what follows
        }
    }
    Map none(0);
    EXPECT_EQ(tq_cmap_get_color(&none, 50), 0u);
}

// Conversions of several ranges share one map and its kept table, while palettes change.
TEST(CmapRgb, ManyThreads)
{
    Map m;
    std::vector<uint16_t> src(5000);
    for (size_t i = 0; i < src.size(); i++)
        src[i] = (uint16_t)i;
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 3; t++) {
        threads.emplace_back([&, t] {
            const uint16_t hi = (uint16_t)(1000 + t);
            std::vector<uint8_t> rgb(src.size() * 3);
            for (int round = 0; round < 40; round++) {
                tq_cmap_set_palette(&m, round % 2 ? 35 : 36); // gray, both ways
                tq_cmap_u16_to_rgb(&m, src.data(), (int)src.size(), &rgb[0], &rgb[1], &rgb[2], 3, 0, hi,
                                   false);
                // Of whichever palette it was when the call began, the ends of the range are white and black.
                const int near = rgb[3], far = rgb[3 * hi];
                wrong += !((near == 0 && far >= 254) || (near == 255 && far <= 1)) || rgb[0] != 0;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST(Histeq, SmallImagesByHand)
{
    const struct {
        std::vector<uint16_t> src;
        uint16_t vmin, vmax;
        int bins;
        bool drop;
        std::vector<uint16_t> want;
    } cases[] = {
        // Bins of 25: counts 1 2 0 1; running 1 3 3 4; lut 25 75 75 100.
        {{10, 30, 40, 90}, 0, 100, 4, true, {45, 75, 75, 100}},
        {{0, 10, 30, 40, 90, 100, 65535}, 0, 100, 4, true, {0, 45, 75, 75, 100, 0, 0}},
        // Running 2 4 4 7 of 7; lut 28 57 57 100.
        {{0, 10, 30, 40, 90, 100, 65535}, 0, 100, 4, false, {28, 39, 57, 57, 100, 100, 100}},
        {{5, 60, 600}, 100, 50, 4, true, {0, 0, 0}},
        {{1, 65534}, 0, 65535, 65535, true, {32767, 65535}},
    };
    for (const auto &c : cases) {
        std::vector<uint16_t> got(c.src); // in place
        tq_cmap_histeq_u16(got.data(), got.data(), (int)got.size(), c.vmin, c.vmax, c.bins, c.drop);
        EXPECT_EQ(got, c.want);
    }
}

TEST(Histeq, FloatBinsAreNotRoundedUp)
{
    // Bins of 33.333: counts 2 1 1; running 2 3 4 of 4; lut 50 75 100.
    const std::vector<float> src = {10, 20, 50, 90, 0, 100, NAN};
    std::vector<float> got(src.size());
    EXPECT_EQ(tq_cmap_histeq_f32(got.data(), src.data(), (int)src.size(), 0, 100, 3, true), 0);
    const float want[] = {57.5f, 65, 87.5f, 100, 0, 0, 0};
    for (size_t i = 0; i < src.size(); i++)
        EXPECT_NEAR(got[i], want[i], 1e-4f) << i;
}
