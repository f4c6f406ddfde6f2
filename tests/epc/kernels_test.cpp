#include <gtest/gtest.h>
#include <vector>

#include "drivers/common/amp_kernels.h"
#include "drivers/common/phase.h"
#include "drivers/epc/epc_kernels.h"

namespace {
// One pixel through a kernel.
struct Pixel {
    uint16_t dist = 12345;
    uint32_t amp = 54321;
};
Pixel run(void (*kernel)(const epc_row_t &, const epc_dist_t &), const epc_dist_t &d, uint16_t p0,
          uint16_t p1, uint16_t p2, uint16_t p3, float slope = 1, float offset = 0,
          const int16_t *gray = nullptr)
{
    Pixel out;
    kernel({{&p0, &p1, &p2, &p3}, gray, &out.dist, &out.amp, &slope, &offset, 1}, d);
    return out;
}

epc_dist_t params(epc_samples_t samples, int32_t dmax = 12491)
{
    epc_dist_t d = {};
    d.samples = samples;
    d.invalid = samples == EPC_SAMPLES_4DCS ? 0 : 65500;
    d.base = PHASE_HALF;
    d.dmax = d.after.dmax = dmax;
    d.after.sys_k = 32768;
    d.slope_k = 1000;
    d.global_k = static_cast<float>(dmax / 32768.0);
    return d;
}
} // namespace

TEST(EpcKernel, UncalibratedSamplesAndOffset)
{
    const struct {
        epc_samples_t samples;
        uint8_t shift;
        int32_t off;
        uint16_t p[4];
        uint16_t dist;
        uint32_t amp;
    } cases[] = {
        {EPC_SAMPLES_4DCS, 0, 0, {2048, 2048, 2148, 2048}, 12491 / 2, 2500},
        {EPC_SAMPLES_4DCS, 0, 0, {2148, 2048, 2048, 2048}, 0, 2500},
        {EPC_SAMPLES_4DCS, 0, -7, {2148, 2048, 2048, 2048}, 65529, 2500},
        {EPC_SAMPLES_4DCS, 0, 5, {2148, 2048, 2048, 2048}, 5, 2500},
        {EPC_SAMPLES_4DCS, 4, 0, {0x8000, 0x8000, 0x8640, 0x8000}, 12491 / 2, 2500},
        {EPC_SAMPLES_4DCS, 0, 0, {2, 2048, 4093, 2048}, 12491 / 2, 4091 * 4091 / 4},
        {EPC_SAMPLES_4DCS, 0, 3, {1, 2048, 4093, 2048}, 0, 0},
        {EPC_SAMPLES_4DCS, 0, 3, {2, 2048, 4094, 2048}, 0, 0},
        {EPC_SAMPLES_4DCS, 0, 0, {2, 2048, 2048, 4094}, 0, 0},
        {EPC_SAMPLES_DIFF, 0, 0, {1, 2048, 4094, 2048}, 12491 / 2, 4093 * 4093 / 4},
        {EPC_SAMPLES_DIFF, 0, 0, {2048, 2048, 2148, 4095}, 65500, 0},
        {EPC_SAMPLES_DIFF, 0, 0, {2048, 0, 2148, 2048}, 65500, 0},
        {EPC_SAMPLES_LEVEL, 0, 0, {1, 1, 1948, 2048}, 12491 / 2, 2500},
        {EPC_SAMPLES_LEVEL, 0, 0, {1, 1, 4095, 0}, 4095 * 0 + 3114, (2047 * 2047 + 2048 * 2048) / 4},
        {EPC_SAMPLES_LEVEL, 0, 0, {4095, 1, 1948, 2048}, 65500, 0},
        {EPC_SAMPLES_LEVEL, 0, 0, {1, 0, 1948, 2048}, 65500, 0},
    };
    for (const auto &c : cases) {
        epc_dist_t d = params(c.samples);
        d.shift = c.shift;
        d.off = c.off;
        const Pixel got = run(epc_dist_row_plain, d, c.p[0], c.p[1], c.p[2], c.p[3]);
        const size_t i = static_cast<size_t>(&c - cases);
        EXPECT_EQ(got.amp, c.amp) << "case " << i;
        if (c.samples == EPC_SAMPLES_LEVEL && c.p[2] == 4095)
            EXPECT_NEAR(got.dist, 12491 * 7 / 8, 8); // I < 0, Q > 0: three eighths of a turn on
        else
            EXPECT_EQ(got.dist, c.dist) << "case " << i;
    }
}

// The gray reference takes part in validity and in I and Q, in calibrated calculations.
TEST(EpcKernel, GrayReference)
{
    epc_dist_t d = params(EPC_SAMPLES_4DCS);
    const int16_t gray = 100;
    const Pixel got = run(epc_global_row_plain, d, 2148, 2048, 2048, 2048, 1, 0, &gray);
    EXPECT_EQ(got.amp, 2500u); // I = 0, Q = 100
    EXPECT_EQ(got.dist, 12491 * 3 / 4);
    EXPECT_EQ(run(epc_global_row_plain, d, 2048, 2048, 3048, 101, 1, 0, &gray).amp,
              (1100 * 1100 + 1847 * 1847) / 4u);
    EXPECT_EQ(run(epc_global_row_plain, d, 101, 2048, 3048, 2048, 1, 0, &gray).amp, 0u);
}

TEST(EpcKernel, GlobalWrapsBeforeItCutsAndDrnuAfter)
{
    epc_dist_t d = params(EPC_SAMPLES_4DCS);
    const auto global = [&](uint16_t p0, uint16_t p2) {
        return run(epc_global_row_plain, d, p0, 2048, p2, 2048).dist;
    };
    const auto drnu = [&](uint16_t p0, uint16_t p2, float slope, float offset) {
        return run(epc_drnu_row_plain, d, p0, 2048, p2, 2048, slope, offset).dist;
    };
    // Phase 0.
    d.global_off = -5;
    EXPECT_EQ(global(2148, 2048), 12491 - 5);
    EXPECT_EQ(drnu(2148, 2048, 1, -5.5f), 12491 - 5);
    EXPECT_EQ(drnu(2148, 2048, 1, -0.5f), 0); // cut to 0 first, so that nothing wraps
    d.after.periodic.ofs = -0.5f;
    d.global_off = 0;
    EXPECT_EQ(global(2148, 2048), 12490); // -0.5 wraps to 12490.5
    d.after.periodic.ofs = 0;
    // The range itself stays, beyond it wraps.
    d.global_off = 12491;
    EXPECT_EQ(global(2148, 2048), 12491);
    d.global_off = 12494;
    EXPECT_EQ(global(2148, 2048), 3);
    EXPECT_EQ(drnu(2148, 2048, 1, 12491), 12491);
    EXPECT_EQ(drnu(2148, 2048, 1, 12494), 3);
    // Half a turn: slope, temperature, system calibration.
    d.global_off = 0;
    EXPECT_EQ(drnu(2048, 2148, 0.5f, 10), 6245 / 2 + 10);
    d.tc = 16384 - 8192.75f;
    EXPECT_EQ(drnu(2048, 2148, 1, 0), 8192 * 12491 / 32768);
    d.tc = 16384 + 40.25f; // a negative phase is cut toward 0: -40
    EXPECT_EQ(drnu(2048, 2148, 1, 100), 100 - 40 * 12491 / 32768);
    d.tc = 0;
    d.after.sys_k = 16384;
    d.after.sys_o = 7;
    EXPECT_EQ(drnu(2048, 2148, 1, 0), 6245 / 2 + 7);
    EXPECT_EQ(global(2048, 2148), 6245 / 2 + 7); // 3122.6 + 7
    EXPECT_EQ(drnu(2148, 2048, 1, -3), 7 - 1);   // -3 / 2 is -1
}

// The table is the rule, and what lies outside takes the rule.
TEST(EpcKernel, DrnuTableEqualsRule)
{
    epc_dist_t d = params(EPC_SAMPLES_4DCS);
    d.after = {{25, 0.002f, 1, -3}, 33000, -40, 12491};
    std::vector<uint16_t> table(3 * 12491);
    for (int i = 0; i < 3 * 12491; i++)
        table[static_cast<size_t>(i)] = epc_after(i - 12491, d.after);
    for (float offset :
         {-40000.0f, -12492.0f, -12491.9f, -12491.0f, -200.0f, -0.5f, 0.0f, 0.5f, 24981.9f, 24982.0f, 1e9f}) {
        d.after_table = {};
        const uint16_t rule = run(epc_drnu_row_plain, d, 2148, 2048, 2048, 2048, 1, offset).dist;
        d.after_table = {table.data(), -12491, 3 * 12491};
        EXPECT_EQ(run(epc_drnu_row_plain, d, 2148, 2048, 2048, 2048, 1, offset).dist, rule) << offset;
    }
    for (float bad : {NAN, INFINITY, -INFINITY, 3e38f}) // no index outside, no undefined conversion
        for (float slope : {bad, 1.0f})
            run(epc_drnu_row_plain, d, 2048, 2048, 2148, 2048, slope, bad);
}

TEST(EpcKernel, Gray)
{
    const uint16_t p0 = 0xF800, p1 = 2048, p2 = 0xF800 + 300, p3 = 2048, low = 1,
                   high = 4094; // upper bits don't count
    uint16_t gray = 0;
    const uint16_t *p[4] = {&p0, &p1, &p2, &p3};
    epc_gray_diff_row_plain(&gray, p, 1);
    EXPECT_NEAR(gray, 150, 10);
    epc_gray_level_row_plain(&gray, &p2, &p3, 1);
    EXPECT_NEAR(gray, 150, 10);
    for (const uint16_t *bad : {&low, &high}) {
        p[3] = bad;
        epc_gray_diff_row_plain(&gray, p, 1);
        EXPECT_EQ(gray, 0);
        epc_gray_level_row_plain(&gray, &p2, bad, 1);
        EXPECT_EQ(gray, 0);
    }
}

TEST(EpcKernel, HdrMergeTakesTheBetterExposure)
{
    const struct {
        uint32_t a, b;
        bool second;
    } cases[] = {
        {10, 20, true},      {20, 10, false},      {10, 10, true},
        {4000000, 50, true}, {3999999, 50, false}, {10, 4000001, false},
        {0, 4000001, true},  {10, 4000000, true},  {5000000, 5000001, false},
    };
    for (const auto &c : cases) {
        std::vector<uint16_t> dist = {1, 1, 2, 2, 9, 9};
        std::vector<uint32_t> amp = {c.a, c.a, c.b, c.b, 7, 7};
        epc_hdr_merge_plain(dist.data(), amp.data(), 1, 6);
        const uint16_t d = c.second ? 2 : 1;
        const uint32_t a = c.second ? c.b : c.a;
        EXPECT_EQ(dist, (std::vector<uint16_t>{d, d, d, d, 9, 9})) << c.a << " " << c.b; // rows 4 and 5 stay
        EXPECT_EQ(amp, (std::vector<uint32_t>{a, a, a, a, 7, 7}));
    }
    std::vector<uint16_t> gray = {5, 6, 7, 4, 1, 2};
    epc_hdr_merge_gray_plain(gray.data(), 1, 6);
    EXPECT_EQ(gray, (std::vector<uint16_t>{7, 6, 7, 6, 1, 2}));
}

TEST(EpcKernel, RowsComeFromTheMiddleOut)
{
    const std::vector<uint16_t> raw = {0, 10, 1, 11, 2, 12, 3, 13, 4, 14, 5, 15}; // 2 x 6
    std::vector<uint16_t> image(12);
    epc_row_sort_u16_plain(image.data(), raw.data(), 2, 6);
    EXPECT_EQ(image, (std::vector<uint16_t>{4, 14, 2, 12, 0, 10, 1, 11, 3, 13, 5, 15}));
    const std::vector<uint32_t> raw32(raw.begin(), raw.end());
    std::vector<uint32_t> image32(12);
    epc_row_sort_u32_plain(image32.data(), raw32.data(), 2, 6);
    EXPECT_EQ(image32, std::vector<uint32_t>(image.begin(), image.end()));
}

TEST(AmpKernel, HysteresisHoldsInTheBand)
{
    const min_amp_t limits = {900, 4000, 800, 4100};
    const std::vector<uint32_t> amp = {899, 900, 4000, 4001, 800, 799, 4100, 4101, 0};
    for (const uint8_t before : {0, 1}) {
        std::vector<uint16_t> dist(amp.size(), 5);
        std::vector<uint8_t> state(amp.size(), before);
        min_amp_hyst_plain(dist.data(), state.data(), amp.data(), amp.size(), limits);
        const uint8_t hold = before;
        EXPECT_EQ(state, (std::vector<uint8_t>{hold, 1, 1, hold, hold, 0, hold, 0, 0}));
        for (size_t i = 0; i < amp.size(); i++)
            EXPECT_EQ(dist[i], state[i] ? 5 : 0);
    }
    std::vector<uint16_t> dist(amp.size(), 5);
    min_amp_plain(dist.data(), amp.data(), amp.size(), limits);
    EXPECT_EQ(dist, (std::vector<uint16_t>{0, 5, 5, 0, 0, 0, 0, 0, 0}));
    dist.assign(amp.size(), 5);
    zero_amp_plain(dist.data(), amp.data(), amp.size());
    EXPECT_EQ(dist, (std::vector<uint16_t>{5, 5, 5, 5, 5, 5, 5, 5, 0}));
}
