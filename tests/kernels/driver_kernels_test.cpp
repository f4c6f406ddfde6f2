// The drivers' vector kernels against their plain forms.
#include <algorithm>
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
    static constexpr uint16_t ends[] = {0, 1, 2, 2048, 4093, 4094, 4095, 4096, 32768, 65535};
    return rng.below(12) == 0 ? ends[rng.below(std::size(ends))] : static_cast<uint16_t>(2 + rng.below(4092));
}

TEST(DriverKernels, RowsOfFourPlanes)
{
    using kernel_t = void (*)(const epc_row_t &, const epc_dist_t &);
    static constexpr kernel_t KERNELS[][2] = {
        {epc_dist_row_plain, epc_dist_row},
        {epc_global_row_plain, epc_global_row},
        {epc_drnu_row_plain, epc_drnu_row},
        {[](auto &r, auto &) { epc_gray_diff_row_plain(r.dist, r.p, r.n); },
         [](auto &r, auto &) { epc_gray_diff_row(r.dist, r.p, r.n); }},
        {[](auto &r, auto &) { epc_gray_level_row_plain(r.dist, r.p[0], r.p[1], r.n); },
         [](auto &r, auto &) { epc_gray_level_row(r.dist, r.p[0], r.p[1], r.n); }},
    };
    const epc_after_t after = {{3.0f, 0.002f, 0.5f, 1.0f}, 32768, -3, 12491};
    std::vector<uint16_t> table(PHASE_TURN + 2); // for both lookups, between zeroes
    for (size_t i = 1; i <= PHASE_TURN; i++)
        table[i] = epc_after(static_cast<int32_t>(i) - 1501, after);
    for_each_length([&](KernelRng &rng, int len) {
        const size_t n = static_cast<size_t>(len), shift = rng.below(7), stride = n + shift;
        const bool upper = rng.below(3) == 0, sound = rng.below(2);
        std::vector<uint16_t> p(4 * stride);
        for (uint16_t &s : p)
            s = static_cast<uint16_t>(upper ? sample(rng) << 4 | rng.below(16) : sample(rng));
        for (size_t i = shift; n > 8 && i < shift + 4; i++) // I and Q on the axes and at 0
            p[3 * stride + i] = p[stride + i], p[2 * stride + i] = p[i];
        std::vector<float> slope(n), offset(n);
        for (size_t i = 0; i < n; i++) { // sound ones mostly stay within the table
            slope[i] = sound ? 0.05f : some_float(rng, 0.9f, 1.1f);
            offset[i] = sound ? rng.unit() * 700.0f : some_float(rng, -200, 200);
        }
        epc_dist_t d = {};
        d.shift = upper ? 4 : 0;
        d.base = PHASE_HALF;
        d.dmax = rng.below(4) == 0 ? 65535 : static_cast<int32_t>(1 + rng.below(32767));
        d.off = static_cast<int32_t>(rng.below(2000)) - 1000;
        d.tc = rng.unit() * 2000.0f - 1000.0f;
        d.after = after;
        d.after_table = {&table[1], -1500, 3000};
        d.phase_table = rng.below(8) ? &table[1] : nullptr;
        const uint16_t *const p0 = &p[shift], *const p1 = p0 + stride, *const p2 = p1 + stride;
        for (const auto &[plain, simd] : KERNELS) {
            const auto run = [&](kernel_t kernel, uint16_t *dist, uint32_t *amp) {
                kernel({{p0, p1, p2, p2 + stride}, nullptr, dist, amp, slope.data(), offset.data(), n}, d);
            };
            ASSERT_TRUE((same_results<uint16_t, uint32_t>(n, shift, plain, simd, run)))
                << "kernel " << (&plain - KERNELS[0]) / 2;
        }
    });
}

TEST(DriverKernels, EveryDirectionOfThePhase)
{
    // Planes 0 and 1 stay in the middle: I and Q are those of the others. Millimetres are the phase itself.
    constexpr size_t N = 4092;
    std::vector<uint16_t> middle(N, 2047), i(N), q(N);
    epc_dist_t d = {};
    d.dmax = 32768;
    const auto run = [&](auto f, uint16_t *dist, uint32_t *amp) {
        f({{middle.data(), middle.data(), i.data(), q.data()}, nullptr, dist, amp, nullptr, nullptr, N}, d);
    };
    for_each_target([&] {
        for (uint32_t step = 1; step < 4092; step += 331) {
            for (size_t x = 0; x < N; x++) {
                i[x] = static_cast<uint16_t>(2 + x);
                q[x] = static_cast<uint16_t>(2 + (x * step + step) % 4092);
            }
            ASSERT_TRUE((same_results<uint16_t, uint32_t>(N, 0, epc_dist_row_plain, epc_dist_row, run)));
        }
    });
}

TEST(DriverKernels, Amplitudes)
{
    static constexpr min_amp_t LIMITS = {900, 4000000, 800, 4000001};
    static constexpr min_amp_t NONE = {4000001, 4000000, 3999999, 4000001}; // a least one above the middle
    using kernel_t = void (*)(uint16_t *, uint8_t *, uint32_t *, uint32_t);
    static constexpr kernel_t KERNELS[][2] = {
        {[](auto d, auto s, auto a, auto n) { min_amp_hyst_plain(d, s, a, n, LIMITS); },
         [](auto d, auto s, auto a, auto n) { min_amp_hyst(d, s, a, n, LIMITS); }},
        {[](auto d, auto s, auto a, auto n) { min_amp_hyst_plain(d, s, a, n, NONE); },
         [](auto d, auto s, auto a, auto n) { min_amp_hyst(d, s, a, n, NONE); }},
        {[](auto d, auto, auto a, auto n) { min_amp_plain(d, a, n, LIMITS); },
         [](auto d, auto, auto a, auto n) { min_amp(d, a, n, LIMITS); }},
        {[](auto d, auto, auto a, auto n) { zero_amp_plain(d, a, n); },
         [](auto d, auto, auto a, auto n) { zero_amp(d, a, n); }},
        {[](auto d, auto, auto a, auto n) { amp_to_gray_plain(d, a, n); },
         [](auto d, auto, auto a, auto n) { amp_to_gray(d, a, n); }},
        {[](auto d, auto, auto a, auto n) { epc_hdr_merge_plain(d, a, n / 5, 5); },
         [](auto d, auto, auto a, auto n) { epc_hdr_merge(d, a, n / 5, 5); }},
        {[](auto d, auto, auto, auto n) { epc_hdr_merge_gray_plain(d, n / 5, 5); },
         [](auto d, auto, auto, auto n) { epc_hdr_merge_gray(d, n / 5, 5); }},
    };
    for_each_length([](KernelRng &rng, int len) {
        const uint32_t n = static_cast<uint32_t>(len);
        std::vector<uint16_t> dist(n);
        std::vector<uint8_t> state(n);
        std::vector<uint32_t> amp(n);
        for (size_t i = 0; i < n; i++) {
            dist[i] = static_cast<uint16_t>(rng.bits());
            state[i] = static_cast<uint8_t>(rng.below(2));
            amp[i] = rng.below(4) ? rng.below(3) * rng.below(700) : EPC_SATURATED - 1 + rng.below(3);
        }
        for (const auto &[plain, simd] : KERNELS) {
            const auto run = [&](kernel_t kernel, uint16_t *d, uint8_t *s, uint32_t *a) {
                std::copy(dist.begin(), dist.end(), d);
                std::copy(state.begin(), state.end(), s);
                std::copy(amp.begin(), amp.end(), a);
                kernel(d, s, a, n);
            };
            ASSERT_TRUE((same_results<uint16_t, uint8_t, uint32_t>(n, rng.below(9), plain, simd, run)))
                << "kernel " << (&plain - KERNELS[0]) / 2;
        }
    });
}

} // namespace
