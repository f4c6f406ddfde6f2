// The SONY family's vector kernels against their plain forms, on every target that this machine runs.
#include <cmath>
#include <vector>

#include "drivers/common/phase.h"
#include "drivers/imx/imx_kernels.h"
#include "support/kernel_check.h"

namespace {
constexpr size_t SIZES[] = {0, 1, 4, 8, 12, 15, 16, 17, 20, 24, 31, 36, 64, 131, 512};

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
} // namespace

TEST(ImxKernels, Unpack)
{
    KernelRng rng;
    for_each_target([&] {
        for (const size_t n : SIZES) {
            if (n % 4)
                continue;
            std::vector<uint8_t> packed(n * 3 / 2); // ends where it ends, for the tools that watch memory
            for (uint8_t &b : packed)
                b = static_cast<uint8_t>(rng.bits());
            const size_t shift = rng.below(7);
            Guarded<int16_t> out(n, shift), want(n, shift);
            imx_unpack(out.data(), packed.data(), n);
            imx_unpack_plain(want.data(), packed.data(), n);
            ASSERT_TRUE(same_bits(want, out, n + 1));
        }
    });
}

TEST(ImxKernels, DistanceAndAmplitude)
{
    KernelRng rng;
    for_each_target([&] {
        for (int round = 0; round < 60; round++)
            for (const size_t n : SIZES) {
                std::vector<int16_t> i(n), q(n);
                std::vector<float> slopes(n), offsets(n);
                for (size_t k = 0; k < n; k++) {
                    i[k] = value(rng);
                    q[k] = value(rng);
                    slopes[k] =
                        rng.below(50) ? 0.9f + rng.unit() * 0.2f : pick(rng, {NAN, 3e38f, -1e9f, 0.0f});
                    offsets[k] = rng.below(50) ? rng.unit() * 900 - 450 : pick(rng, {NAN, INFINITY, -1e30f});
                }
                const imx_map_t map = {pick(rng, {32768, 32768, 0, 1, 30000, 40000, 2147418, INT32_MAX}),
                                       pick(rng, {0, 0, 77, -3000, -100000, 5000000, INT32_MIN, INT32_MAX}),
                                       pick(rng, {1249, 3747, 7494, 1, 65535, 65536, INT32_MAX})};
                imx_line_t line = {};
                line.on = rng.below(2);
                line.tc = pick(rng, {0.0f, 3.5f, -1000.25f, 40000.0f, 3e9f, NAN, -INFINITY});
                line.slope = pick(rng, {1.0f, 0.998f, -2.0f, 1e20f});
                line.offset = pick(rng, {0.0f, -650.0f, 12.0f, 2e9f});
                if (rng.below(2)) {
                    line.slopes = slopes.data();
                    line.offsets = offsets.data();
                }
                line.periodic = {pick(rng, {0.0f, 4.5f}), pick(rng, {0.02f, 0.02f, -0.007f, 50.0f, NAN}),
                                 0.5f, pick(rng, {0.0f, -1.5f, 0.1f})};
                const size_t shift = rng.below(7);
                Guarded<uint16_t> dist(n, shift), dist_want(n, shift);
                Guarded<uint32_t> amp(n, shift), amp_want(n, shift);
                imx_dist(dist.data(), amp.data(), i.data(), q.data(), n, map, line);
                imx_dist_plain(dist_want.data(), amp_want.data(), i.data(), q.data(), n, map, line);
                ASSERT_TRUE(same_bits(dist_want, dist, n + 1))
                    << "k " << map.sys_k << " o " << map.sys_o << " dm " << map.dm << " line " << line.on
                    << " planes " << (line.slopes != nullptr) << " tc " << line.tc << " " << line.slope << " "
                    << line.offset << " wave " << line.periodic.amp;
                ASSERT_TRUE(same_bits(amp_want, amp, n + 1));
                Guarded<uint32_t> amp2(n, shift);
                imx_amp(amp2.data(), i.data(), q.data(), n);
                ASSERT_TRUE(same_bits(amp_want, amp2, n + 1));
            }
    });
}

// Each phase that there is, with lines that end at halves: rounding goes away from 0.
TEST(ImxKernels, RoundingOfTheCorrectedPhase)
{
    std::vector<int16_t> i, q;
    for (int step = 0; step < 65536; step++) {
        const double turn = step * 2 * M_PI / 65536;
        i.push_back(static_cast<int16_t>(std::lround(2047 * std::cos(turn))));
        q.push_back(static_cast<int16_t>(std::lround(2047 * std::sin(turn))));
    }
    const size_t n = i.size();
    std::vector<uint16_t> dist(n), want(n);
    std::vector<uint32_t> amp(n);
    for_each_target([&] {
        for (const float tc : {0.5f, 20000.5f, -0.5f, 0.25f, 0.49999997f})
            for (const int32_t k : {32768, 40000}) {
                imx_line_t line = {};
                line.on = true;
                line.tc = tc;
                line.slope = 1;
                const imx_map_t map = {k, 0, 32768}; // millimetres are phase
                imx_dist(dist.data(), amp.data(), i.data(), q.data(), n, map, line);
                imx_dist_plain(want.data(), amp.data(), i.data(), q.data(), n, map, line);
                ASSERT_EQ(dist, want) << tc;
            }
    });
}

TEST(ImxKernels, Unwrapping)
{
    KernelRng rng;
    for_each_target([&] {
        for (const size_t n : SIZES)
            for (const int32_t dmax : {1249, 1, 0, 65535, INT32_MAX}) {
                std::vector<uint16_t> d_hi(n), d_lo(n);
                std::vector<uint32_t> a_hi(n), a_lo(n);
                for (size_t k = 0; k < n; k++) {
                    d_hi[k] = static_cast<uint16_t>(rng.below(4) ? rng.below(1249) : rng.bits());
                    d_lo[k] = static_cast<uint16_t>(rng.below(4) ? rng.below(7494) : rng.bits());
                    a_hi[k] = rng.below(2) ? 95 + rng.below(12) : rng.below(1u << 30);
                    a_lo[k] = rng.below(1u << 30);
                }
                const size_t shift = rng.below(7);
                Guarded<uint16_t> dist(n, shift), dist_want(n, shift);
                Guarded<uint32_t> amp(n, shift), amp_want(n, shift);
                imx_unwrap(dist.data(), amp.data(), d_hi.data(), a_hi.data(), d_lo.data(), a_lo.data(), n,
                           dmax);
                imx_unwrap_plain(dist_want.data(), amp_want.data(), d_hi.data(), a_hi.data(), d_lo.data(),
                                 a_lo.data(), n, dmax);
                ASSERT_TRUE(same_bits(dist_want, dist, n + 1)) << dmax;
                ASSERT_TRUE(same_bits(amp_want, amp, n + 1));
            }
    });
}
