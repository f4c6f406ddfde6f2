#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "image/palettes.h"
#include "tq_cmap.h"

static const float kNaN = std::numeric_limits<float>::quiet_NaN();
static const float kInf = std::numeric_limits<float>::infinity();

struct Map : tq_cmap_t {
    explicit Map(int entries = 30000) { tq_cmap_init(this, entries); }
    ~Map() { tq_cmap_uninit(this); }
};

TEST(Palettes, AreTheTablesTheyWereMadeFrom)
{
    uint64_t hash = 0xcbf29ce484222325; // of the csv's floats, in its order
    for (int p = 0; p < kPaletteCount; p++) {
        for (int row = 0; row < kPaletteRows; row++) {
            for (const float v : tq_cmap_palettes[p][row]) {
                uint32_t bits;
                memcpy(&bits, &v, sizeof bits);
                hash = (hash ^ bits) * 0x100000001b3;
            }
        }
    }
    EXPECT_EQ(hash, 0xaf9fb81743b553a3u);
}

TEST(CmapColor, MarkersRangeAndPaletteRows)
{
    Map m;
    const struct {
        int value;
        uint32_t colour;
    } cases[] = {
        {65300, 0},    {65400, 0x8000FF}, {65500, 0xFF0EA9}, // markers, outside the range
        {0, 0},        {-5, 0},           {4001, 0},         // outside
        {1, 0x0000BF}, {2000, 0x7FFF7F},  {4000, 0x7F0000},  // near is red, far is blue
    };
    for (const auto &c : cases)
        EXPECT_EQ(tq_cmap_get_color(&m, c.value), c.colour) << c.value;
    tq_cmap_set_range(&m, 65000, 66000);
    EXPECT_EQ(tq_cmap_get_color(&m, 65400), 0x8000FFu);
    ASSERT_TRUE(tq_cmap_set_palette(&m, 35)); // linear gray
    tq_cmap_set_range(&m, 100, 355);          // a row a step
    for (const int v : {100, 101, 102, 200, 354, 355}) {
        const uint32_t gray = (uint32_t)(v - 100);
        EXPECT_EQ(tq_cmap_get_color(&m, v), gray | gray << 8 | gray << 16) << v;
    }
    EXPECT_FALSE(tq_cmap_set_palette(&m, 64));
    EXPECT_EQ(tq_cmap_get_palette(&m), 35u);
}

TEST(CmapRange, SwappedEqualAndOdd)
{
    Map m;
    tq_cmap_set_range(&m, 900, 100);
    EXPECT_EQ(m.vmin, 100.0f);
    EXPECT_EQ(m.vmax, 900.0f);
    EXPECT_EQ(m.idx_scale, 30000.0f / 800.0f);
    EXPECT_EQ(m.pal_scale, 255.0f / 800.0f);
    tq_cmap_set_range(&m, 7, 7);
    EXPECT_EQ(m.vmin, 100.0f);
    EXPECT_EQ(m.vmax, 900.0f);
    EXPECT_EQ(m.rgb_scale, 255.0f);
    EXPECT_EQ(m.idx_scale, 30000.0f);
    // Scales that don't fit the range any more, and ranges that aren't any, stay inside table and palette.
    const float ends[] = {-kInf, -3e38f, 0, 1e-40f, 4000, 3e38f, kInf, kNaN};
    for (const uint32_t palette : {0u, 5u}) {
        tq_cmap_set_palette(&m, palette);
        for (const int v : {-2147483647 - 1, -1, 0, 101, 500, 900, 2147483647}) {
            tq_cmap_set_range(&m, 100, 900);
            tq_cmap_set_range(&m, 7, 7);
            EXPECT_LE(tq_cmap_get_color(&m, v), 0xFFFFFFu);
            for (const float lo : ends) {
                for (const float hi : ends) {
                    tq_cmap_set_range(&m, lo, hi);
                    EXPECT_LE(tq_cmap_get_color(&m, v), 0xFFFFFFu);
                }
            }
        }
    }
    Map none(0);
    EXPECT_EQ(tq_cmap_get_color(&none, 50), 0u);
}

// One channel of one value, as the rule says.
static int channel(const palette_row_t *pal, int c, float v, float vmin, float vmax)
{
    if (!(v > vmin))
        return 0;
    const float f = vmax > vmin ? (std::fmin(vmax, v) - vmin) * (255 / (vmax - vmin)) : 255;
    const int i = (int)f, j = std::min(i, 253) + 1;
    const float t = f - i;
    return (int)((pal[j][c] * t + pal[i][c] * (1 - t)) * 255 + 0.5);
}

TEST(CmapRgb, EveryValueFollowsTheRule)
{
    std::vector<uint16_t> u16(65536);
    std::vector<float> f32(65536);
    for (int i = 0; i < 65536; i++)
        f32[i] = u16[i] = (uint16_t)i;
    const uint16_t ranges[][2] = {{0, 4000}, {500, 755}, {0, 65535}, {100, 101}, {300, 300}, {900, 100}};
    Map m;
    for (const uint32_t palette : {0u, 4u, 35u, 63u}) {
        tq_cmap_set_palette(&m, palette);
        for (const auto [lo, hi] : ranges) {
            std::vector<uint8_t> a(65536 * 3), b(65536 * 3);
            ASSERT_EQ(tq_cmap_u16_to_rgb(&m, u16.data(), 65536, &a[0], &a[1], &a[2], 3, lo, hi, true), 0);
            ASSERT_EQ(
                tq_cmap_f32_to_rgb(&m, f32.data(), 65536, &b[0], &b[65536], &b[131072], 1, lo, hi, false), 0);
            for (int i = 0; i < 65536; i++) {
                for (int c = 0; c < 3; c++) {
                    const int want = channel(tq_cmap_palettes[palette], c, f32[i], lo, hi);
                    ASSERT_EQ(a[3 * i + c], want) << palette << " " << lo << "-" << hi << " value " << i;
                    ASSERT_EQ(b[65536 * c + i], want) << palette << " " << lo << "-" << hi << " value " << i;
                }
            }
        }
    }
}

TEST(CmapRgb, OddFloatsAndArguments)
{
    Map m;
    tq_cmap_set_palette(&m, 35);
    const float src[] = {kNaN, -kInf, kInf, -1, 0, 1e-40f, 1, 3e38f};
    uint8_t out[9 * 4];
    for (const float lo : src) {
        for (const float hi : src) { // no wild read or conversion, whatever the range
            memset(out, 0x5A, sizeof out);
            EXPECT_EQ(tq_cmap_f32_to_rgb(&m, src, 8, out + 1, out + 2, out + 3, 4, lo, hi, false), 0);
            EXPECT_EQ(out[1], 0) << "NaN is black";
            for (int i = 0; i < 36; i += i < 32 ? 4 : 1)
                EXPECT_EQ(out[i], 0x5A) << i; // the fourth bytes and what follows
            EXPECT_EQ(tq_cmap_f32_to_rgb(&m, src, 8, out + 1, out + 2, out + 3, 4, lo, hi, true), 0);
        }
    }
    const uint16_t one = 1;
    EXPECT_EQ(tq_cmap_u16_to_rgb(&m, &one, -1, out, out, out, 3, 0, 9, false), 0);
    EXPECT_EQ(tq_cmap_u16_to_rgb(&m, &one, 1, out, nullptr, out, 3, 0, 9, false), -22);
}

TEST(CmapRgb, FloatsAreColouredEqualised)
{
    Map m;
    tq_cmap_set_palette(&m, 35);
    const std::vector<float> src = {10, 10, 10, 10, 10, 10, 10, 90};
    std::vector<float> equal(8);
    std::vector<uint8_t> a(24), b(24);
    tq_cmap_histeq_f32(equal.data(), src.data(), 8, 0, 100, 256, true);
    tq_cmap_f32_to_rgb(&m, src.data(), 8, &a[0], &a[1], &a[2], 3, 0, 100, true);
    tq_cmap_f32_to_rgb(&m, equal.data(), 8, &b[0], &b[1], &b[2], 3, 0, 100, false);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a[0], 223); // 7 of 8 pixels lie at or below: 0.875
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
