#include <cmath>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "tq_filter.h"

TEST(Conv, FloatsAreCutClampedAndWrapped)
{
    const struct {
        float in, factor;
        uint8_t u8;
        uint16_t u16;
        uint32_t u32;
    } cases[] = {
        {-0.99f, 1, 0, 0, 0},
        {-1.5f, 1, 255, 65535, 0xFFFFFFFFu},
        {2147483520.0f, 1, 0x80, 0xFF80, 2147483520u},
        {3e9f, 1, 255, 65535, 3000000000u},
        {-1e20f, 1, 0, 0, 0x80000000u},
        {NAN, 1, 0, 0, 0},
        {INFINITY, 0, 0, 0, 0},
    };
    constexpr int n = 133; // fills vectors, and leaves some over
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.in << " * " << c.factor);
        const std::vector<float> in(n, c.in);
        std::vector<uint8_t> u8(n);
        std::vector<uint16_t> u16(n);
        std::vector<uint32_t> u32(n);
        tq_conv_f32_u8(u8.data(), in.data(), n, c.factor);
        tq_conv_f32_u16(u16.data(), in.data(), n, c.factor);
        tq_conv_f32_u32(u32.data(), in.data(), n, c.factor);
        EXPECT_EQ(u8, std::vector<uint8_t>(n, c.u8));
        EXPECT_EQ(u16, std::vector<uint16_t>(n, c.u16));
        EXPECT_EQ(u32, std::vector<uint32_t>(n, c.u32));
    }
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
