#include <cmath>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "tq_filter.h"

TEST(Conv, FloatsAreCutClampedAndWrapped)
{
    const float nan = NAN, inf = INFINITY;
    const struct {
        float in, factor;
        uint8_t u8;
        uint16_t u16;
        uint32_t u32;
    } cases[] = {
        {1.999f, 1, 1, 1, 1},
        {1.2345f, 1000, 1234 & 255, 1234, 1234},
        {-0.99f, 1, 0, 0, 0},
        {-1.5f, 1, 255, 65535, 0xFFFFFFFFu},
        {65536.0f, 1, 0, 0, 65536},
        {70000.0f, 1, 70000 & 255, 70000 & 65535, 70000},
        {2147483520.0f, 1, 0x80, 0xFF80, 2147483520u},
        {3e9f, 1, 255, 65535, 3000000000u},
        {1e20f, 1, 255, 65535, 0xFFFFFFFFu},
        {-1e20f, 1, 0, 0, 0x80000000u},
        {1e30f, 1e30f, 255, 65535, 0xFFFFFFFFu},
        {inf, 1, 255, 65535, 0xFFFFFFFFu},
        {-inf, 1, 0, 0, 0x80000000u},
        {nan, 1, 0, 0, 0},
        {inf, 0, 0, 0, 0},
    };
    for (const auto &c : cases) {
        // Several of each, so that vectors are filled and left over.
        for (int n : {1, 7, 64, 133}) {
            const std::vector<float> in(n, c.in);
            std::vector<uint8_t> u8(n);
            std::vector<uint16_t> u16(n);
            std::vector<uint32_t> u32(n);
            tq_conv_f32_u8(u8.data(), in.data(), n, c.factor);
            tq_conv_f32_u16(u16.data(), in.data(), n, c.factor);
            tq_conv_f32_u32(u32.data(), in.data(), n, c.factor);
            EXPECT_EQ(u8, std::vector<uint8_t>(n, c.u8)) << c.in << " * " << c.factor;
            EXPECT_EQ(u16, std::vector<uint16_t>(n, c.u16)) << c.in << " * " << c.factor;
            EXPECT_EQ(u32, std::vector<uint32_t>(n, c.u32)) << c.in << " * " << c.factor;
        }
    }
}

TEST(Conv, IntegersAreScaled)
{
    std::vector<uint16_t> in;
    for (uint32_t v = 0; v < 65536; v += 13)
        in.push_back((uint16_t)v);
    in.insert(in.end(), {32767, 32768, 65535});
    const int n = (int)in.size();
    std::vector<float> f(n);
    std::vector<uint32_t> wide(n);
    std::vector<uint8_t> low(n);
    tq_conv_u16_f32(f.data(), in.data(), n, 0.001f);
    tq_conv_u16_u32(wide.data(), in.data(), n, 65535);
    for (int i = 0; i < n; i++) {
        ASSERT_EQ(f[i], (float)in[i] * 0.001f);
        ASSERT_EQ(wide[i], (uint64_t)in[i] * 65535);
    }
    for (int shift : {-1, 0, 4, 8, 15, 16, 40}) {
        tq_conv_u16_u8(low.data(), in.data(), n, shift);
        for (int i = 0; i < n; i++)
            ASSERT_EQ(low[i], (uint8_t)(shift > 15 ? 0 : in[i] >> (shift < 0 ? 0 : shift))) << shift;
    }
    wide.back() = 0xFFFFFFFFu;
    tq_conv_u32_f32(f.data(), wide.data(), n, 1.0f);
    EXPECT_EQ(f.back(), 4294967296.0f);
    EXPECT_EQ(f[1], 851955.0f);
    tq_conv_u32_f32(f.data(), wide.data(), n, 0.5f);
    EXPECT_EQ(f[1], 425977.5f);
}

TEST(Conv, NothingToDo)
{
    float f = 7;
    const uint16_t u = 1;
    for (int n : {0, -1, INT32_MIN})
        tq_conv_u16_f32(&f, &u, n, 1);
    tq_conv_u16_f32(&f, nullptr, 1, 1);
    tq_conv_u16_f32(nullptr, &u, 1, 1);
    EXPECT_EQ(f, 7);
}

// Frame decoding widens from the upper half of the caller's own array.
TEST(Conv, WidensInPlace)
{
    for (int n : {1, 2, 31, 32, 33, 64, 500, 501}) {
        std::vector<float> buf(n);
        std::vector<uint32_t> wide(n);
        // An odd count leaves the source one element further back than half.
        uint16_t *src = (uint16_t *)buf.data() + n, *src_wide = (uint16_t *)wide.data() + n;
        for (int i = 0; i < n; i++) {
            const uint16_t v = (uint16_t)(i * 977 + 3);
            memcpy(src + i, &v, 2);
            memcpy(src_wide + i, &v, 2);
        }
        tq_conv_u16_f32(buf.data(), src, n, 0.5f);
        tq_conv_u16_u32(wide.data(), src_wide, n, 3);
        for (int i = 0; i < n; i++) {
            ASSERT_EQ(buf[i], (uint16_t)(i * 977 + 3) * 0.5f) << n;
            ASSERT_EQ(wide[i], (uint16_t)(i * 977 + 3) * 3u) << n;
        }
    }
}
