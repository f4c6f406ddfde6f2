// Vector forms of the image filters against their plain forms.
#include <algorithm>

#include "image/depth_kernels.h"
#include "image/gauss_iir_kernels.h"
#include "image/smooth_kernels.h"
#include "simd/flush_subnormals.h"
#include "support/kernel_check.h"

TEST(FilterKernels, Windows)
{
    check_filter<uint16_t>("median 3", median2d_u16_k3_plain, median2d_u16_k3_simd);
    check_filter<uint16_t>("median 5", median2d_u16_k5_plain, median2d_u16_k5_simd);
    check_filter<uint16_t>("box u16", box2d_u16_k3_plain, box2d_u16_k3_simd);
    check_filter<uint32_t>("box u32", box2d_u32_k3_plain, box2d_u32_k3_simd);
    check_filter<uint16_t>("Gauss", gauss2d_u16_k3_plain, gauss2d_u16_k3_simd);
    check_filter<uint16_t>("holes", fhole_u16_k3_plain, fhole_u16_k3_simd);
    check_filter<uint16_t>(
        "fly pixels", // a threshold for each image
        [](uint16_t *d, const uint16_t *s, int w, int h) { flypix_u16_k3_plain(d, s, w, h, s[0] % 64); },
        [](uint16_t *d, const uint16_t *s, int w, int h) { flypix_u16_k3_simd(d, s, w, h, s[0] % 64); });
}

// Centre and gradient so that both sides of the comparison are next to each other, over the whole range.
TEST(FilterKernels, FlyPixelAtTheThreshold)
{
    const size_t w = 333;
    for_each_length([&](KernelRng &rng, int) {
        const int thr = 1 + (int)rng.below(63);
        Guarded<uint16_t> src(3 * w, 1);
        uint16_t low = 0, high = 0;
        for (size_t x = 0; x < w; x++) {
            // Steps of four columns: the second's gradient is 4 (high - low) against its own value.
            if (x % 4 == 0) {
                low = (uint16_t)rng.below(60000);
                high = (uint16_t)std::min(65535.0, low + low * std::sqrt(thr / 1024.0) / 2 + rng.below(3));
            }
            src[x] = src[w + x] = src[2 * w + x] = x % 4 < 2 ? low : high;
        }
        const auto run = [&](auto form, uint16_t *dst) { form(dst, src.data(), w, 3, thr); };
        ASSERT_TRUE(same_results<uint16_t>(3 * w, 2, flypix_u16_k3_plain, flypix_u16_k3_simd, run)) << thr;
    });
}

TEST(FilterKernels, Bilateral)
{
    for_each_size([](KernelRng &rng, int w, int h) {
        const size_t n = (size_t)w * h;
        Guarded<uint16_t> src(n, rng.below(64));
        fill_samples(rng, src.values());
        const uint16_t ends[] = {0, (uint16_t)rng.below(300), 4095, 4096, (uint16_t)rng.bits(), 65535};
        const auto [lo, hi] = std::minmax({ends[rng.below(6)], ends[rng.below(6)]});
        const float sigmas[] = {0.0f, 0.02f, 0.1f, rng.unit(), 100.0f, -0.1f, std::nanf("")};
        const float spatial = sigmas[rng.below(7)], range = sigmas[rng.below(7)];
        tq_bpf2d_iir_t f;
        ASSERT_TRUE(tq_bpf2d_iir_init(&f, w, h, lo, hi, spatial, range));
        const FlushSubnormals flush;
        const auto run = [&](auto form, uint16_t *dst) { form(&f, dst, src.data()); };
        EXPECT_TRUE(same_results<uint16_t>(n, rng.below(64), bpf2d_iir_plain, bpf2d_iir_simd, run))
            << lo << "-" << hi << " sigmas " << spatial << " " << range;
        tq_bpf2d_iir_uninit(&f);
    });
}

TEST(FilterKernels, RecursiveGauss)
{
    for_each_size([](KernelRng &rng, int w, int h) {
        const size_t n = (size_t)w * h;
        Guarded<float> src(n, rng.below(64));
        Guarded<uint16_t> samples(n, 0);
        fill_samples(rng, samples.values());
        for (size_t i = 0; i < n; i++)
            src[i] = samples[i] * (rng.below(50) ? 1.0f : -1e30f);
        const gauss_iir_coef_t c = gauss_iir_coef(rng.unit() * 8.0f);
        const bool in_place = rng.below(2);
        const auto blur = [&](auto form, float *dst) {
            memcpy(dst, src.data(), n * sizeof(float));
            form(dst, in_place ? dst : src.data(), w, h, c);
        };
        ASSERT_TRUE(same_results<float>(n, rng.below(64), gauss_iir_f32_plain, gauss_iir_f32_simd, blur));
        for (float &v : src.values())
            v = some_float(rng, -1000, 69000);
        const auto cut = [&](auto form, uint16_t *dst) { form(dst, src.data(), n); };
        ASSERT_TRUE(
            same_results<uint16_t>(n, rng.below(64), gauss_iir_to_u16_plain, gauss_iir_to_u16_simd, cut));
    });
}
