// The vector forms of the depth filters against their plain forms.
#include "support/kernel_check.h"

#include <algorithm>
#include <cmath>

#include "image/depth_kernels.h"
#include "simd/flush_subnormals.h"

using samples_t = Guarded<uint16_t>;

// Calls check(src, plain, vector, w, h) for images of all sizes and kinds.
template <typename F> static void for_each_image(KernelRng &rng, int rounds, F check)
{
    for (int round = 0; round < rounds; round++) {
        for_each_size([&](int w, int h) {
            const size_t n = (size_t)w * (size_t)h;
            samples_t src(n, rng.below(64)), plain(n, 0), vector(n, rng.below(64));
            fill_samples(rng, src.values());
            check(src, plain, vector, w, h);
        });
    }
}

TEST(DepthKernels, FlyPixel)
{
    KernelRng rng;
    for_each_target([&] {
        for_each_image(rng, 4, [&](samples_t &src, samples_t &plain, samples_t &vector, int w, int h) {
            const int thr = (int)rng.below(64);
            flypix_u16_k3_plain(plain.data(), src.data(), w, h, thr);
            flypix_u16_k3_simd(vector.data(), src.data(), w, h, thr);
            ASSERT_TRUE(same_bits(plain, vector, (size_t)w)) << "thr " << thr;
        });
    });
}

// Centre and gradient so that both sides of the comparison are next to each other, over the whole range.
TEST(DepthKernels, FlyPixelAtTheThreshold)
{
    KernelRng rng;
    const int w = 333, h = 3;
    for_each_target([&] {
        for (int round = 0; round < 200; round++) {
            const int thr = 1 + (int)rng.below(63);
            samples_t src((size_t)w * h, 1), plain((size_t)w * h, 2), vector((size_t)w * h, 3);
            for (int x = 0; x < w; x++) {
                // Steps of four columns: the second column's gradient is 4 (high - low) against its own
                // value.
                static uint16_t low, high;
                if (x % 4 == 0) {
                    low = (uint16_t)rng.below(60000);
                    high =
                        (uint16_t)std::min(65535.0, low + (low * std::sqrt(thr / 1024.0) / 2) + rng.below(3));
                }
                for (int y = 0; y < h; y++)
                    src[(size_t)(y * w + x)] = x % 4 < 2 ? low : high;
            }
            flypix_u16_k3_plain(plain.data(), src.data(), w, h, thr);
            flypix_u16_k3_simd(vector.data(), src.data(), w, h, thr);
            ASSERT_TRUE(same_bits(plain, vector, (size_t)w)) << "thr " << thr;
        }
    });
}

TEST(DepthKernels, HoleFill)
{
    KernelRng rng;
    for_each_target([&] {
        for_each_image(rng, 4, [&](samples_t &src, samples_t &plain, samples_t &vector, int w, int h) {
            fhole_u16_k3_plain(plain.data(), src.data(), w, h);
            fhole_u16_k3_simd(vector.data(), src.data(), w, h);
            ASSERT_TRUE(same_bits(plain, vector, (size_t)w));
        });
    });
}

TEST(DepthKernels, Bilateral)
{
    KernelRng rng;
    for_each_target([&] {
        for_each_image(rng, 2, [&](samples_t &src, samples_t &plain, samples_t &vector, int w, int h) {
            const uint16_t ends[] = {0, (uint16_t)rng.below(300), 4095, 4096, (uint16_t)rng.bits(), 65535};
            uint16_t lo = ends[rng.below(6)], hi = ends[rng.below(6)];
            if (lo > hi)
                std::swap(lo, hi);
            const float sigmas[] = {0.0f, 0.02f, 0.1f, rng.unit(), 100.0f, -0.1f, std::nanf("")};
            const float spatial = sigmas[rng.below(7)], range = sigmas[rng.below(7)];
            tq_bpf2d_iir_t f;
            ASSERT_TRUE(tq_bpf2d_iir_init(&f, w, h, lo, hi, spatial, range));
            {
                const FlushSubnormals flush;
                bpf2d_iir_plain(&f, plain.data(), src.data());
                bpf2d_iir_simd(&f, vector.data(), src.data());
            }
            EXPECT_TRUE(same_bits(plain, vector, (size_t)w))
                << lo << "-" << hi << " sigmas " << spatial << " " << range;
            bpf2d_iir_simd(&f, src.data(), src.data()); // over itself
            EXPECT_TRUE(src.intact());
            tq_bpf2d_iir_uninit(&f);
        });
    });
}
