// The drivers' vector kernels against their plain forms.
#include <array>
#include <vector>

#include "drivers/common/amp_kernels.h"
#include "drivers/common/phase.h"
#include "drivers/epc/epc_kernels.h"
#include "support/kernel_check.h"

namespace {

// A sample: mostly of a scene, with the ends of the valid range and beyond among them.
uint16_t sample(KernelRng &rng)
{
    static constexpr uint16_t ends[] = {0,    1,    2,    3,    2047, 2048,  2049,
                                        4092, 4093, 4094, 4095, 4096, 32768, 65535};
    return rng.below(12) == 0 ? ends[rng.below(std::size(ends))] : static_cast<uint16_t>(2 + rng.below(4092));
}

TEST(DriverKernels, RowsOfFourPlanes)
{
    for_each_length([](KernelRng &rng, int len) {
        const size_t n = static_cast<size_t>(len), shift = rng.below(7);
        const bool upper = rng.below(3) == 0;
        std::array<std::vector<uint16_t>, 4> planes;
        for (auto &plane : planes) {
            plane.resize(n + shift);
            for (uint16_t &s : plane)
                s = static_cast<uint16_t>(upper ? sample(rng) << 4 | rng.below(16) : sample(rng));
        }
        for (size_t i = shift; n > 8 && i < shift + 4; i++) // I and Q on the axes and at 0
            planes[3][i] = planes[1][i], planes[2][i] = planes[0][i];
        std::vector<float> slope(n), offset(n);
        for (size_t i = 0; i < n; i++) {
            slope[i] = some_float(rng, 0.9f, 1.1f);
            offset[i] = some_float(rng, -200, 200);
        }
        std::vector<uint16_t> table(3000);
        epc_dist_t d = {};
        d.samples = EPC_SAMPLES_4DCS;
        d.shift = upper ? 4 : 0;
        d.base = PHASE_HALF;
        d.dmax = rng.below(4) == 0 ? 65535 : static_cast<int32_t>(1 + rng.below(32767));
        d.off = static_cast<int32_t>(rng.below(2000)) - 1000;
        d.tc = rng.unit() * 2000.0f - 1000.0f;
        d.after = {{3.0f, 0.002f, 0.5f, 1.0f}, 32768, -3, d.dmax};
        for (size_t i = 0; i < table.size(); i++)
            table[i] = epc_after(static_cast<int32_t>(i) - 500, d.after);
        d.after_table = {table.data(), -500, static_cast<uint32_t>(table.size())};
        for (const bool drnu : {false, true}) {
            Guarded<uint16_t> dist(n, shift), dist_want(n, shift);
            Guarded<uint32_t> amp(n, shift), amp_want(n, shift);
            epc_row_t row = {{}, nullptr, dist.data(), amp.data(), slope.data(), offset.data(), n};
            for (size_t k = 0; k < 4; k++)
                row.p[k] = planes[k].data() + shift;
            (drnu ? epc_drnu_row : epc_dist_row)(row, d);
            row.dist = dist_want.data();
            row.amp = amp_want.data();
            (drnu ? epc_drnu_row_plain : epc_dist_row_plain)(row, d);
            ASSERT_TRUE(same_bits(dist_want, dist, n)) << "drnu " << drnu;
            ASSERT_TRUE(same_bits(amp_want, amp, n)) << "drnu " << drnu;
        }
    });
}

TEST(DriverKernels, EveryDirectionOfThePhase)
{
    // Planes 0 and 1 stay in the middle: I and Q are those of planes 2 and 3.
    constexpr size_t N = 4092;
    std::vector<uint16_t> middle(N, 2047), i_plane(N), q_plane(N), dist(N);
    std::vector<uint32_t> amp(N);
    const epc_row_t row = {{middle.data(), middle.data(), i_plane.data(), q_plane.data()},
                           nullptr,
                           dist.data(),
                           amp.data(),
                           nullptr,
                           nullptr,
                           N};
    epc_dist_t d = {};
    d.base = PHASE_HALF;
    d.dmax = 32768; // millimetres are the phase itself
    for_each_target([&] {
        for (uint32_t step = 1; step < 4092; step += 331) {
            for (size_t x = 0; x < N; x++) {
                i_plane[x] = static_cast<uint16_t>(2 + x);
                q_plane[x] = static_cast<uint16_t>(2 + (x * step + step) % 4092);
            }
            epc_dist_row(row, d);
            for (size_t x = 0; x < N; x++)
                ASSERT_EQ(dist[x], phase_of(i_plane[x] - 2047, q_plane[x] - 2047, PHASE_HALF)) << x;
        }
    });
}

TEST(DriverKernels, Amplitudes)
{
    static constexpr min_amp_t LIMITS = {900, 4072324, 800, 4072424};
    using kernel_t = void (*)(uint16_t *, uint8_t *, const uint32_t *, size_t);
    static constexpr kernel_t KERNELS[][2] = {
        {[](auto d, auto s, auto a, size_t n) { min_amp_hyst_plain(d, s, a, n, LIMITS); },
         [](auto d, auto s, auto a, size_t n) { min_amp_hyst(d, s, a, n, LIMITS); }},
        {[](auto d, auto, auto a, size_t n) { min_amp_plain(d, a, n, LIMITS); },
         [](auto d, auto, auto a, size_t n) { min_amp(d, a, n, LIMITS); }},
        {[](auto d, auto, auto a, size_t n) { zero_amp_plain(d, a, n); },
         [](auto d, auto, auto a, size_t n) { zero_amp(d, a, n); }},
        {[](auto d, auto, auto a, size_t n) { amp_to_gray_plain(d, a, n); },
         [](auto d, auto, auto a, size_t n) { amp_to_gray(d, a, n); }},
    };
    for_each_length([](KernelRng &rng, int len) {
        const size_t n = static_cast<size_t>(len), shift = rng.below(9);
        std::vector<uint32_t> amp(n);
        for (uint32_t &a : amp)
            a = rng.below(9) == 0 ? 0 : rng.below(4) ? rng.below(2000) : rng.below(0x40000000);
        for (const auto &[plain, simd] : KERNELS) {
            Guarded<uint16_t> due(n, shift), got(n, shift);
            Guarded<uint8_t> due_state(n, shift), got_state(n, shift);
            for (size_t i = 0; i < n; i++) {
                due[i] = got[i] = static_cast<uint16_t>(rng.bits());
                due_state[i] = got_state[i] = static_cast<uint8_t>(rng.below(2));
            }
            plain(due.data(), due_state.data(), amp.data(), n);
            simd(got.data(), got_state.data(), amp.data(), n);
            ASSERT_TRUE(same_bits(due, got, n)) << "kernel " << (&plain - KERNELS[0]) / 2;
            ASSERT_TRUE(same_bits(due_state, got_state, n));
        }
    });
}

} // namespace
