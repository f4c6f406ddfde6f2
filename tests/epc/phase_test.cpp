#include <cmath>
#include <gtest/gtest.h>

#include "drivers/common/fast_sqrt.h"
#include "drivers/common/frame_hash.h"
#include "drivers/common/periodic.h"
#include "drivers/common/phase.h"

TEST(Phase, CasesOfTheFold)
{
    const struct {
        int32_t i, q, base, phase;
    } cases[] = {
        {100, 0, 16384, 16384},      {-100, 0, 16384, 0},         {0, 0, 16384, 16384},
        {0, 100, 16384, 24576},      {100, 100, 16384, 20480},    {100, 0, 0, 0},
        {-100, 0, 24576, 8192},      {2048, 1, 16384, 16384 + 3}, // entry 2 of the table
        {1, 2047, 16384, 24576 - 2},                              // the last octant before a quarter turn
    };
    for (const auto &c : cases)
        EXPECT_EQ(phase_of(c.i, c.q, c.base), c.phase) << c.i << "," << c.q << "," << c.base;
}

// All octants, all magnitudes: never more than a step and a half from the true angle.
TEST(Phase, FollowsTheArctangent)
{
    int worst = 0;
    for (int radius : {7, 100, 1000, 4091, 65535})
        for (int step = 0; step < 3600; step++) {
            const double turn = step / 3600.0;
            const int i = static_cast<int>(std::lround(radius * std::cos(2 * M_PI * turn)));
            const int q = static_cast<int>(std::lround(radius * std::sin(2 * M_PI * turn)));
            double expected = std::atan2(q, i) / (2 * M_PI) * 32768 + 16384;
            int off = std::abs(phase_of(i, q, 16384) - (static_cast<int>(std::lround(expected)) & 32767));
            worst = std::max(worst, std::min(off, 32768 - off));
        }
    EXPECT_LE(worst, 2);
}

TEST(Phase, AmplitudeRangeAndRoot)
{
    EXPECT_EQ(squared_amp(3, -5), 8u);
    EXPECT_EQ(squared_amp(65535, 65535), static_cast<uint32_t>(2ull * 65535 * 65535) >> 2); // wraps
    EXPECT_EQ(range_of(12000000), 12491);
    EXPECT_EQ(range_of(0), 0);
    EXPECT_EQ(range_of(69), 0);          // beyond 31 bits
    EXPECT_EQ(range_of(70), 2141374464); // rounded to f32
    for (uint32_t v : {0u, 1u, 4u, 9u, 10000u, 1000000u, 4000000000u})
        EXPECT_NEAR(fastsqrt(v), std::sqrt(v), 0.07 * std::sqrt(v) + 1) << v;
    EXPECT_EQ(fastsqrt(1u << 30), 32768);
    EXPECT_NE(fastsqrt(3000000), static_cast<uint16_t>(std::sqrt(3000000.0))); // and no root
}

TEST(Periodic, SignIndexAndHostileTerms)
{
    const periodic_t p = {10, 0.001f, 0.5f, -2};
    for (float d : {0.0f, 100.0f, 3000.0f, -900.0f}) {
        const float t = d * 0.001f + 0.5f;
        EXPECT_NEAR(periodic_correct(d, p), d + 10 * std::sin(t) - 2, 0.02) << d;
    }
    // Whatever a file brings, the table is met inside.
    for (float bad : {INFINITY, -INFINITY, NAN, 3e38f})
        periodic_correct(1000, {1, bad, 0, 0}), periodic_correct(1000, {1, 1, bad, 0});
    EXPECT_EQ(to_i32(NAN), 0);
    EXPECT_EQ(to_i32(3e9f), INT32_MAX);
    EXPECT_EQ(to_i32(-INFINITY), INT32_MIN);
    EXPECT_EQ(to_i32(-2.9f), -2);
    EXPECT_EQ(to_i64(1e300), INT64_MAX);
}

TEST(FrameHash, SeesEveryWord)
{
    tqcam_frame_info_t info = {};
    EXPECT_EQ(frame_hash(&info), 0u);
    info.frame_size = 1; // word 0 counts 50 times in the second sum
    EXPECT_EQ(frame_hash(&info), 50u << 16 | 1u);
    info.frame_size = 0;
    info.frame_idx = 0xFFFF; // 65535 is 0
    EXPECT_EQ(frame_hash(&info), 0u);
    info.reserved2[55] = 1;
    EXPECT_EQ(frame_hash(&info), 256u << 16 | 256u);
}
