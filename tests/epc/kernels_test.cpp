#include <array>
#include <gtest/gtest.h>
#include <vector>

#include "drivers/common/phase.h"
#include "drivers/epc/epc_kernels.h"

namespace {
struct Pixel {
    uint16_t dist = 12345;
    uint32_t amp = 54321;
};
using Samples = std::array<uint16_t, 4>;
// One pixel through a kernel.
Pixel run(void (*kernel)(const epc_row_t &, const epc_dist_t &), const epc_dist_t &d, const Samples &p,
          float slope = 1, float offset = 0)
{
    Pixel out;
    kernel({{&p[0], &p[1], &p[2], &p[3]}, nullptr, &out.dist, &out.amp, &slope, &offset, 1}, d);
    return out;
}
epc_dist_t params(epc_samples_t samples)
{
    epc_dist_t d = {};
    d.samples = samples;
    d.invalid = samples == EPC_SAMPLES_4DCS ? 0 : 65500;
    d.base = PHASE_HALF;
    d.dmax = d.after.dmax = 12491;
    d.after.sys_k = 32768;
    d.slope_k = 1000;
    d.global_k = static_cast<float>(12491 / 32768.0);
    return d;
}
constexpr Samples PHASE_0 = {2148, 2048, 2048, 2048}, HALF_TURN = {2048, 2048, 2148, 2048};
} // namespace

TEST(EpcKernel, ValidSamplesAndOffset)
{
    const struct {
        epc_samples_t samples;
        uint8_t shift;
        int32_t off;
        Samples p;
        uint16_t dist;
        uint32_t amp;
    } cases[] = {
        {EPC_SAMPLES_4DCS, 0, -7, PHASE_0, 65529, 2500},
        {EPC_SAMPLES_4DCS, 4, 0, {0x8000, 0x8000, 0x8640, 0x8000}, 12491 / 2, 2500},
        {EPC_SAMPLES_4DCS, 0, 0, {2, 2048, 4093, 2048}, 12491 / 2, 4091 * 4091 / 4},
        {EPC_SAMPLES_4DCS, 0, 3, {1, 2048, 4093, 2048}, 0, 0},
        {EPC_SAMPLES_4DCS, 0, 0, {2, 2048, 2048, 4094}, 0, 0},
        {EPC_SAMPLES_DIFF, 0, 0, {1, 2048, 4094, 2048}, 12491 / 2, 4093 * 4093 / 4},
        {EPC_SAMPLES_DIFF, 0, 0, {2048, 2048, 2148, 4095}, 65500, 0},
        {EPC_SAMPLES_DIFF, 0, 0, {2048, 0, 2148, 2048}, 65500, 0},
        {EPC_SAMPLES_LEVEL, 0, 0, {1, 1, 1948, 2048}, 12491 / 2, 2500},
    };
    for (const auto &c : cases) {
        epc_dist_t d = params(c.samples);
        d.shift = c.shift;
        d.off = c.off;
        const Pixel got = run(epc_dist_row_plain, d, c.p);
        EXPECT_EQ(got.amp, c.amp) << "case " << &c - cases;
        EXPECT_EQ(got.dist, c.dist) << "case " << &c - cases;
    }
}

TEST(EpcKernel, GlobalWrapsBeforeItCutsAndDrnuAfter)
{
    epc_dist_t d = params(EPC_SAMPLES_4DCS);
    const auto global = [&] { return run(epc_global_row_plain, d, PHASE_0).dist; };
    const auto drnu = [&](float offset) { return run(epc_drnu_row_plain, d, PHASE_0, 1, offset).dist; };
    d.global_off = -5;
    EXPECT_EQ(global(), 12491 - 5);
    EXPECT_EQ(drnu(-5.5f), 12491 - 5);
    EXPECT_EQ(drnu(-0.5f), 0); // cut to 0 first, so that nothing wraps
    d.after.periodic.ofs = -0.5f;
    d.global_off = 0;
    EXPECT_EQ(global(), 12490); // -0.5 wraps to 12490.5
    d.after.periodic.ofs = 0;
    for (const int beyond : {0, 1}) { // the range itself stays
        d.global_off = 12491 + beyond;
        EXPECT_EQ(global(), beyond ? 1 : 12491);
        EXPECT_EQ(drnu(static_cast<float>(12491 + beyond)), beyond ? 1 : 12491);
    }
}

TEST(EpcKernel, HdrMergeTakesTheBetterExposure)
{
    const struct {
        uint32_t a, b;
        bool second;
    } cases[] = {{10, 10, true},       {20, 10, false},     {4000000, 50, true}, {3999999, 50, false},
                 {10, 4000001, false}, {10, 4000000, true}, {0, 4000001, true},  {5000000, 5000001, false}};
    for (const auto &c : cases) {
        std::vector<uint16_t> dist = {1, 1, 2, 2, 9, 9};
        std::vector<uint32_t> amp = {c.a, c.a, c.b, c.b, 7, 7};
        epc_hdr_merge_plain(dist.data(), amp.data(), 1, 6);
        const uint16_t d = c.second ? 2 : 1;
        EXPECT_EQ(dist, (std::vector<uint16_t>{d, d, d, d, 9, 9})) << c.a << " " << c.b; // rows 4 and 5 stay
        EXPECT_EQ(amp[2], c.second ? c.b : c.a);
    }
}
