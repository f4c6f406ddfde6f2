// The SONY family's vector kernels against their plain forms, on every target that this machine runs.
#include <algorithm>
#include <cmath>
#include <vector>

#include "drivers/common/phase.h"
#include "drivers/imx/imx_kernels.h"
#include "support/kernel_check.h"

namespace {

// An I or Q of 13 bits, those at the ends and around 0 more often.
int16_t value(KernelRng &rng)
{
    static constexpr int16_t ends[] = {0, 0, 1, -1, 2, 2047, -2048, 4095, -4095};
    return rng.below(5) == 0 ? ends[rng.below(9)]
                             : static_cast<int16_t>(static_cast<int>(rng.below(4096)) - 2048);
}
template <typename T> T pick(KernelRng &rng, std::initializer_list<T> values)
{
    return values.begin()[rng.below(static_cast<uint32_t>(values.size()))];
}

// What a round calculates with. Every fourth takes millimetres for phase and ends all at halves or next to
// them, which are rounded away from 0.
std::pair<imx_map_t, imx_line_t> any_terms(KernelRng &rng)
{
    if (rng.below(4) == 0)
        return {{pick(rng, {32768, 40000}), 0, 32768},
                {true, pick(rng, {0.5f, 20000.5f, -0.5f, 0.49999997f}), 1, 0, nullptr, nullptr, {}}};
    return {{pick(rng, {32768, 32768, 0, 1, 30000, 40000, 2147418, INT32_MAX}),
             pick(rng, {0, 0, 77, -3000, -100000, 5000000, INT32_MIN, INT32_MAX}),
             pick(rng, {1249, 3747, 7494, 1, 65535, 65536, INT32_MAX})},
            {rng.below(2) != 0,
             pick(rng, {0.0f, 3.5f, -1000.25f, 40000.0f, 3e9f, NAN, -INFINITY}),
             pick(rng, {1.0f, 0.998f, -2.0f, 1e20f}),
             pick(rng, {0.0f, -650.0f, 12.0f, 2e9f}),
             nullptr,
             nullptr,
             {pick(rng, {0.0f, 4.5f}), pick(rng, {0.02f, 0.02f, -0.007f, 50.0f, NAN}), 0.5f,
              pick(rng, {0.0f, -1.5f, 0.1f})}}};
}

TEST(ImxKernels, Rows)
{
    for_each_length([](KernelRng &rng, int len) {
        const size_t n = static_cast<size_t>(len), shift = rng.below(7);
        std::vector<uint8_t> packed(6 * n); // ends where it ends, for the tools that watch memory
        std::generate(packed.begin(), packed.end(), [&] { return static_cast<uint8_t>(rng.bits()); });
        const auto unpack = [&](auto f, auto out) { f(out, packed.data(), 4 * n); };
        ASSERT_TRUE(same_results<int16_t>(4 * n, shift, imx_unpack_plain, imx_unpack, unpack));

        std::vector<int16_t> i(n), q(n);
        std::vector<float> slopes(n), offsets(n);
        for (size_t k = 0; k < n; k++) {
            i[k] = value(rng);
            q[k] = value(rng);
            slopes[k] = rng.below(50) ? 0.9f + rng.unit() * 0.2f : pick(rng, {NAN, 3e38f, -1e9f, 0.0f});
            offsets[k] = rng.below(50) ? rng.unit() * 900 - 450 : pick(rng, {NAN, INFINITY, -1e30f});
        }
        for (int round = 0; round < 20; round++) {
            auto [map, line] = any_terms(rng);
            line.slopes = round % 2 ? slopes.data() : nullptr;
            line.offsets = offsets.data();
            const auto dist = [&](auto f, auto d, auto a) { f(d, a, i.data(), q.data(), n, map, line); };
            ASSERT_TRUE((same_results<uint16_t, uint32_t>(n, shift, imx_dist_plain, imx_dist, dist)))
                << "k " << map.sys_k << " o " << map.sys_o << " dm " << map.dm << " tc " << line.tc;
        }
        const auto amp = [&](auto f, auto a) { f(a, i.data(), q.data(), n); };
        ASSERT_TRUE(same_results<uint32_t>(n, shift, imx_amp_plain, imx_amp, amp));

        std::vector<uint16_t> d_hi(n), d_lo(n);
        std::vector<uint32_t> a_hi(n), a_lo(n);
        for (size_t k = 0; k < n; k++) {
            d_hi[k] = static_cast<uint16_t>(rng.below(4) ? rng.below(1249) : rng.bits());
            d_lo[k] = static_cast<uint16_t>(rng.below(4) ? rng.below(7494) : rng.bits());
            a_hi[k] = rng.below(2) ? 95 + rng.below(12) : rng.below(1u << 30);
            a_lo[k] = rng.below(1u << 30);
        }
        for (const int32_t dmax : {1249, 1, 0, 65535, INT32_MAX}) {
            const auto unwrap = [&](auto f, auto d, auto a) {
                f(d, a, d_hi.data(), a_hi.data(), d_lo.data(), a_lo.data(), n, dmax);
            };
            ASSERT_TRUE((same_results<uint16_t, uint32_t>(n, shift, imx_unwrap_plain, imx_unwrap, unwrap)));
        }
    });
}

} // namespace
