#include <cmath>
#include <gtest/gtest.h>

#include "drivers/common/phase.h"
#include "drivers/imx/imx_format.h"
#include "drivers/imx/imx_kernels.h"

TEST(ImxKernel, CalibratedLine)
{
    const int16_t i = 100, q = 0;
    const float slopes[] = {0.5f}, offsets[] = {10};
    const struct {
        float tc, slope, offset;
        bool planes;
        periodic_t periodic;
        double mm; // of half a turn
    } cases[] = {
        {0, 1, 0, false, {}, 624.5},          // a neutral one
        {0, 1, -700, false, {}, 1249 - 75.5}, // below 0: in the turn before
        {20000, 1, 0, false, {}, 624.5 - 20000 * 1249 / 32768.0 + 1249},
        {0, 7, 7, true, {}, 322.25}, // the pixel's own line goes before
        {0, 1, 0, false, {5, 0, static_cast<float>(M_PI / 2), 2}, 631.5},
    };
    for (const auto &c : cases) {
        uint16_t dist;
        uint32_t amp;
        imx_dist_plain(&dist, &amp, &i, &q, 1, {32768, 0, 1249},
                       {true, c.tc, c.slope, c.offset, c.planes ? slopes : nullptr, offsets, c.periodic});
        EXPECT_NEAR(dist, c.mm, 1.05);
        EXPECT_EQ(amp, 2500u);
    }
}

TEST(ImxFormat, IntegrationTimeInMetadata)
{
    const struct {
        int map;
        size_t first; // byte of four, three apart
        uint32_t us;  // of 0x00012345 ticks
    } cases[] = {{1110, 367, 622}, {1366, 367, 622}, {1302, 287, 622},
                 {1304, 287, 622}, {1320, 287, 622}, {1200, 287, 1}};
    for (const auto &c : cases) {
        std::vector<uint8_t> raw(600);
        raw[16] = static_cast<uint8_t>(c.map >> 4);
        raw[19] = static_cast<uint8_t>(c.map << 4 | 9);
        for (size_t k = 0; k < 4; k++)
            raw[c.first + 3 * k] = static_cast<uint8_t>(0x00012345 >> (24 - 8 * k));
        EXPECT_EQ(imx_meta_intg_us(raw.data(), 589, 588), c.us) << c.map;
        for (const uint32_t meta : {587u, 589u, UINT32_MAX - 3})
            EXPECT_EQ(imx_meta_intg_us(raw.data(), 589, meta), 0u);
    }
}
