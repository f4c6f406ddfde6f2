// The drivers' vector kernels against their plain forms, on every target that this machine runs.
#include <cmath>
#include <limits>
#include <vector>

#include "drivers/common/amp_kernels.h"
#include "drivers/common/phase.h"
#include "drivers/epc/epc_kernels.h"
#include "support/kernel_check.h"

namespace {

constexpr size_t SIZES[] = {1, 3, 4, 7, 8, 15, 16, 17, 31, 33, 63, 64, 131};

// A sample: mostly of a scene, with the ends of the valid range and beyond among them.
uint16_t sample(KernelRng &rng)
{
    static constexpr uint16_t ends[] = {0,    1,    2,    3,    2047, 2048,  2049,
                                        4092, 4093, 4094, 4095, 4096, 32768, 65535};
    return rng.below(12) == 0 ? ends[rng.below(std::size(ends))] : static_cast<uint16_t>(2 + rng.below(4092));
}

TEST(DriverKernels, RowsOfFourPlanes)
{
    KernelRng rng;
    for_each_target([&] {
        for (const size_t n : SIZES) {
            const size_t shift = rng.below(7);
            std::vector<std::vector<uint16_t>> planes(4, std::vector<uint16_t>(n + shift));
            const bool upper = rng.below(3) == 0;
            for (auto &plane : planes)
                for (uint16_t &s : plane)
                    s = static_cast<uint16_t>(upper ? sample(rng) << 4 | rng.below(16) : sample(rng));
            if (n > 8) // equal planes: I and Q on the axes and at 0
                for (size_t i = 0; i < 4; i++)
                    planes[3][shift + i] = planes[1][shift + i], planes[2][shift + i] = planes[0][shift + i];
            std::vector<float> slope(n), offset(n);
            for (size_t i = 0; i < n; i++) {
                slope[i] = 0.9f + rng.unit() * 0.2f;
                offset[i] = rng.unit() * 400.0f - 200.0f;
            }
            slope[0] = std::numeric_limits<float>::quiet_NaN();
            offset[n / 2] = rng.below(2) ? 1e30f : -1e30f;
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
                ASSERT_TRUE(dist.intact() && amp.intact());
                for (size_t i = 0; i < n; i++) {
                    ASSERT_EQ(dist[i], dist_want[i]) << "pixel " << i << " of " << n << ", drnu " << drnu;
                    ASSERT_EQ(amp[i], amp_want[i]) << "pixel " << i << " of " << n;
                }
            }
        }
    });
}

TEST(DriverKernels, EveryDirectionOfThePhase)
{
    // Planes 0 and 1 stay in the middle: I and Q are those of planes 2 and 3.
    constexpr size_t N = 4092;
    for_each_target([&] {
        std::vector<uint16_t> middle(N), i_plane(N), q_plane(N), dist(N), want(N);
        std::vector<uint32_t> amp(N);
        for (uint32_t step = 1; step < 4092; step += 331) {
            for (size_t x = 0; x < N; x++) {
                middle[x] = 2047;
                i_plane[x] = static_cast<uint16_t>(2 + x);
                q_plane[x] = static_cast<uint16_t>(2 + (x * step + step) % 4092);
            }
            epc_dist_t d = {};
            d.base = PHASE_HALF;
            d.dmax = 32768; // millimetres are the phase itself
            epc_row_t row = {{middle.data(), middle.data(), i_plane.data(), q_plane.data()},
                             nullptr,
                             dist.data(),
                             amp.data(),
                             nullptr,
                             nullptr,
                             N};
            epc_dist_row(row, d);
            for (size_t x = 0; x < N; x++)
                ASSERT_EQ(dist[x], phase_of(i_plane[x] - 2047, q_plane[x] - 2047, PHASE_HALF)) << x;
        }
    });
}

TEST(DriverKernels, Amplitudes)
{
    KernelRng rng;
    const min_amp_t limits = {900, 4072324, 800, 4072424};
    for_each_target([&] {
        for (const size_t n : SIZES) {
            const size_t shift = rng.below(9);
            std::vector<uint32_t> amp(n);
            for (uint32_t &a : amp)
                a = rng.below(4) ? rng.below(2000) : rng.below(0x40000000);
            amp[n / 2] = 0;
            Guarded<uint16_t> a(n, shift), b(n, shift);
            Guarded<uint8_t> state_a(n, shift), state_b(n, shift);
            for (size_t i = 0; i < n; i++) {
                a[i] = b[i] = static_cast<uint16_t>(rng.bits());
                state_a[i] = state_b[i] = static_cast<uint8_t>(rng.below(2));
            }
            const auto same = [&] {
                ASSERT_TRUE(a.intact() && state_a.intact());
                for (size_t i = 0; i < n; i++) {
                    ASSERT_EQ(a[i], b[i]) << i;
                    ASSERT_EQ(state_a[i], state_b[i]) << i;
                }
            };
            min_amp_hyst(a.data(), state_a.data(), amp.data(), n, limits);
            min_amp_hyst_plain(b.data(), state_b.data(), amp.data(), n, limits);
            same();
            min_amp(a.data(), amp.data(), n, limits);
            min_amp_plain(b.data(), amp.data(), n, limits);
            zero_amp(a.data(), amp.data(), n);
            zero_amp_plain(b.data(), amp.data(), n);
            same();
            amp_to_gray(a.data(), amp.data(), n);
            amp_to_gray_plain(b.data(), amp.data(), n);
            same();
        }
    });
}

} // namespace
