#include <cmath>
#include <gtest/gtest.h>

#include "drivers/common/phase.h"
#include "drivers/imx/imx_format.h"
#include "drivers/imx/imx_kernels.h"

namespace {
uint16_t dist_of(int16_t i, int16_t q, const imx_map_t &map, const imx_line_t &line = {})
{
    uint16_t dist = 0xBEEF;
    uint32_t amp = 0;
    imx_dist_plain(&dist, &amp, &i, &q, 1, map, line);
    EXPECT_EQ(amp, squared_amp(i, q));
    return dist;
}
constexpr imx_map_t PLAIN = {32768, 0, 1249};
} // namespace

TEST(ImxKernel, PackedSamplesAreLeastSignificantFirst)
{
    // 48 bits: 0x001, 0x7FF, 0x800, 0xABC
    const uint64_t group = 0x001 | 0x7FFull << 12 | 0x800ull << 24 | 0xABCull << 36;
    uint8_t bytes[13];
    memcpy(bytes + 1, &group, 6); // odd address
    memcpy(bytes + 7, &group, 6);
    int16_t out[9] = {0, 0, 0, 0, 0, 0, 0, 0, 77};
    imx_unpack_plain(out, bytes + 1, 8);
    const int16_t expected[9] = {1, 2047, -2048, -1348, 1, 2047, -2048, -1348, 77};
    EXPECT_FALSE(memcmp(out, expected, sizeof(out)));
}

TEST(ImxKernel, WordsAreSwappedAndMarked)
{
    const struct {
        uint8_t bytes[2];
        int16_t value;
        uint8_t bad;
    } cases[] = {
        {{0x00, 0x10}, 1, 0},  {{0x3F, 0xF0}, 1023, 0},  {{0x40, 0x00}, -1024, 0},
        {{0x7F, 0xF0}, -1, 0}, {{0x7F, 0xFF}, -1, 0}, // the low four bits don't count
        {{0x80, 0x10}, 1, 1},  {{0xC0, 0x00}, -1024, 1}, {{0x00, 0x8F}, 8, 0},
    };
    for (const auto &c : cases) {
        int16_t out = 0;
        uint8_t bad = 0, stays = 1;
        imx_words_plain(&out, &bad, c.bytes, 1);
        EXPECT_EQ(out, c.value);
        EXPECT_EQ(bad, c.bad);
        imx_words_plain(&out, &stays, c.bytes, 1);
        EXPECT_EQ(stays, 1);
    }
}

TEST(ImxKernel, FinalMapping)
{
    const struct {
        int16_t i, q;
        imx_map_t map;
        uint16_t dist;
    } cases[] = {
        {100, 0, PLAIN, 1249 / 2},     // phase 16384
        {0, 0, PLAIN, 1249 / 2},       // no light
        {-5, 0, PLAIN, 0},             // 32768: a whole turn
        {0, 100, PLAIN, 1249 * 3 / 4}, // 24576
        {0, -100, PLAIN, 1249 / 4},    // 40960 - 32768
        {-5, 0, {32768, -100, 1249}, 1249 * (32768 - 100) / 32768},
        {100, 0, {32768, -16384, 1249}, 0},    // to 0 exactly
        {100, 0, {32768, -16385, 1249}, 1248}, // below 0: in the turn before
        {100, 0, {32768, -16384 - 3 * 32768, 1249}, 0},
        {100, 0, {32768, -16385 - 3 * 32768, 1249}, 1248},
        {100, 0, {65536, 0, 1249}, 0},                     // 32768
        {0, -100, {16384, 0, 1249}, 1249 * 20480 / 32768}, // scaled before it is reduced: 40960 / 2
        {0, 100, {INT32_MAX, INT32_MAX, 1249}, 1249 * 24575 / 32768}, // products need 64 bits
        {0, 100, {32768, 0, INT32_MAX}, static_cast<uint16_t>(int64_t{24576} * INT32_MAX / 32768)},
    };
    for (const auto &c : cases) {
        const int64_t ph = phase_angle(c.i, c.q) + 16384;
        int64_t r = ph * c.map.sys_k / 32768 + c.map.sys_o; // the same by floor
        r -= static_cast<int64_t>(std::floor(static_cast<double>(r) / 32768)) * 32768;
        EXPECT_EQ(dist_of(c.i, c.q, c.map), static_cast<uint16_t>(r * c.map.dm / 32768));
        EXPECT_TRUE(dist_of(c.i, c.q, c.map) == c.dist || c.map.sys_k > 100000) << c.i << "," << c.q;
    }
}

// What a calibration does to the turn, and what one does that isn't sane.
TEST(ImxKernel, CalibratedLine)
{
    imx_line_t line = {};
    line.on = true;
    line.slope = 1;
    for (int dm : {1, 37, 1249, 3747, 7494, 65535, 149896})
        for (int step = 0; step < 5000; step++) { // a neutral one gives the same to the bit
            const double turn = step * 2 * M_PI / 5000;
            const auto i = static_cast<int16_t>(std::lround(2000 * std::cos(turn))),
                       q = static_cast<int16_t>(std::lround(2000 * std::sin(turn)));
            const imx_map_t map = {32768, 0, dm};
            ASSERT_EQ(dist_of(i, q, map, line), dist_of(i, q, map)) << dm << " " << step;
        }
    const float slopes[] = {0.5f, 1}, offsets[] = {10, -625};
    const struct {
        float tc, slope, offset;
        bool planes;
        periodic_t periodic;
        double mm; // of half a turn
    } cases[] = {
        {0, 1, 100, false, {}, 724.5},
        {0, 1.1f, 0, false, {}, 686.95},
        {0, 1, -700, false, {}, 1249 - 75.5}, // below 0: in the turn before
        {100, 1, 0, false, {}, 624.5 - 100 * 1249 / 32768.0},
        {20000, 1, 0, false, {}, 624.5 - 20000 * 1249 / 32768.0 + 1249},
        {0, 7, 7, true, {}, 322.25}, // the pixel's own line goes before
        {0, 1, 0, false, {5, 0, static_cast<float>(M_PI / 2), 2}, 631.5},
    };
    for (const auto &c : cases) {
        line = {true, c.tc, c.slope, c.offset, c.planes ? slopes : nullptr, offsets, c.periodic};
        EXPECT_NEAR(dist_of(100, 0, PLAIN, line), c.mm, 1.05);
    }
    line = {true, 0, 1, 0, slopes + 1, offsets + 1, {}};
    EXPECT_NEAR(dist_of(100, 0, PLAIN, line), 1248, 1.05); // -0.5
    for (const float bad : {NAN, INFINITY, -INFINITY, 3e38f}) {
        line = {true, bad, 1, 0, nullptr, nullptr, {}};
        dist_of(100, 7, PLAIN, line);
        line = {true, 0, bad, bad, nullptr, nullptr, {bad, bad, bad, bad}};
        EXPECT_LT(dist_of(100, 7, PLAIN, line), 1249);
    }
}

TEST(ImxKernel, Unwrapping)
{
    const struct {
        uint16_t d_hi, d_lo;
        uint32_t a_hi;
        uint16_t dist;
        bool fine;
    } cases[] = {
        {100, 100, 101, 100, true},     {100, 724, 101, 100, true}, // half of 1249 is 624
        {100, 725, 101, 1349, true},    {100, 1973, 101, 1349, true},  {100, 1974, 101, 2598, true},
        {100, 2600, 101, 2598, true},   {100, 3222, 101, 2598, true},  {100, 3223, 101, 3223, false},
        {100, 5000, 101, 5000, false},  {100, 2600, 100, 2600, false}, {1200, 0, 5000, 1200, true},
        {0, 65535, 5000, 65535, false},
    };
    for (const auto &c : cases) {
        uint16_t dist = 0;
        uint32_t amp = 0;
        const uint32_t a_lo = 7;
        imx_unwrap_plain(&dist, &amp, &c.d_hi, &c.a_hi, &c.d_lo, &a_lo, 1, 1249);
        EXPECT_EQ(dist, c.dist) << c.d_hi << " " << c.d_lo << " " << c.a_hi;
        EXPECT_EQ(amp, c.fine ? c.a_hi : 7);
    }
}

TEST(ImxFormat, NeedsOfEveryFormat)
{
    const struct {
        uint16_t code;
        uint64_t needs; // of 8 x 4 with 5 bytes of metadata
        int dcs;
    } cases[] = {{2, 4 * 69, 4},  {10, 69, 1},     {13, 2 * 69, 2}, {14, 2 * 69, 4},
                 {15, 2 * 69, 8}, {16, 2 * 53, 2}, {17, 4 * 53, 4}};
    for (const auto &c : cases)
        for (const uint16_t bit7 : {0, 0x80}) {
            const imx_format_t *f = imx_format_find(c.code | bit7);
            ASSERT_TRUE(f);
            tqcam_frame_info_t info = {};
            info.width = 8;
            info.height = 4;
            info.meta_size = 5;
            EXPECT_EQ(imx_layout_of(*f, &info).needs(), c.needs) << c.code;
            EXPECT_EQ(f->dcs, c.dcs);
            info.width = info.height = UINT32_MAX; // nothing wraps
            info.meta_size = UINT32_MAX - 1;
            EXPECT_GT(imx_layout_of(*f, &info).needs(), uint64_t{1} << 40);
        }
    for (const uint16_t code : {0, 1, 3, 8, 11, 12, 18, 171, 0x102, 0x202, 0x110, 0xFFFF})
        EXPECT_EQ(imx_format_find(code), nullptr) << code;
}

TEST(ImxFormat, IntegrationTimeInMetadata)
{
    const struct {
        int map;
        size_t first; // byte of four, three apart
        uint32_t us;  // of 0x00012345 ticks
    } cases[] = {{1110, 367, 622}, {1366, 367, 622}, {1302, 287, 622}, {1304, 287, 622},
                 {1320, 287, 622}, {1200, 287, 1},   {0, 367, 1}};
    for (const auto &c : cases) {
        std::vector<uint8_t> raw(600);
        raw[16] = static_cast<uint8_t>(c.map >> 4);
        raw[19] = static_cast<uint8_t>(c.map << 4 | 9);
        for (size_t k = 0; k < 4; k++)
            raw[c.first + 3 * k] = static_cast<uint8_t>(0x00012345 >> (24 - 8 * k));
        const auto us = [&](uint32_t len, uint32_t meta) { return imx_meta_intg_us(raw.data(), len, meta); };
        EXPECT_EQ(us(600, 588), c.us) << c.map;
        EXPECT_EQ(us(589, 588), c.us);
        EXPECT_EQ(us(588, 588), 0u);
        EXPECT_EQ(us(600, 587), 0u);
        EXPECT_EQ(us(600, 0), 0u);
        EXPECT_EQ(us(600, UINT32_MAX - 3), 0u);
        EXPECT_EQ(imx_meta_intg_us(nullptr, 600, 588), 0u);
    }
}
