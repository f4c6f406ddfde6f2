// Vector forms of the windowed filters and the conversions against their plain forms.
#include <functional>

#include "image/gauss_iir_kernels.h"
#include "image/smooth_kernels.h"
#include "support/kernel_check.h"

namespace {

template <class T> struct window_case_t {
    const char *name;
    void (*plain)(T *, const T *, int, int);
    void (*vector)(T *, const T *, int, int);
};

template <class T> void check_window(const window_case_t<T> &c)
{
    SCOPED_TRACE(c.name);
    KernelRng rng;
    for_each_target([&] {
        for_each_size([&](int w, int h) {
            if (testing::Test::HasFailure())
                return;
            const size_t n = (size_t)w * h;
            Guarded<uint16_t> samples(n, 0);
            fill_samples(rng, samples.values());
            Guarded<T> src(n, rng.below(64)), plain(n, rng.below(64)), vector(n, rng.below(64));
            for (size_t i = 0; i < n; i++)
                src[i] = (T)(samples[i] * (sizeof(T) == 4 ? 65537u : 1u));
            c.plain(plain.data(), src.data(), w, h);
            c.vector(vector.data(), src.data(), w, h);
            ASSERT_TRUE(same_bits(plain, vector, w)) << w << "x" << h;
        });
    });
}

} // namespace

TEST(SmoothKernels, Windows)
{
    check_window<uint16_t>({"median 3", median2d_u16_k3_plain, median2d_u16_k3_simd});
    check_window<uint16_t>({"median 5", median2d_u16_k5_plain, median2d_u16_k5_simd});
    check_window<uint16_t>({"box u16", box2d_u16_k3_plain, box2d_u16_k3_simd});
    check_window<uint32_t>({"box u32", box2d_u32_k3_plain, box2d_u32_k3_simd});
    check_window<uint16_t>({"Gauss", gauss2d_u16_k3_plain, gauss2d_u16_k3_simd});
}

// Wider than the part of a row that the median of 5 x 5 sorts at a time, with last parts of every kind.
TEST(SmoothKernels, WideMedian)
{
    KernelRng rng;
    for_each_target([&] {
        for (const int w : {1023, 1024, 1025, 1026, 1040, 1056, 1057, 2049, 2500}) {
            const int h = 5;
            Guarded<uint16_t> src((size_t)w * h, 1), plain(src.size(), 2), vector(src.size(), 3);
            fill_samples(rng, src.values());
            median2d_u16_k5_plain(plain.data(), src.data(), w, h);
            median2d_u16_k5_simd(vector.data(), src.data(), w, h);
            ASSERT_TRUE(same_bits(plain, vector, w)) << w;
        }
    });
}

TEST(SmoothKernels, RecursiveGauss)
{
    KernelRng rng;
    for_each_target([&] {
        for_each_size([&](int w, int h) {
            if (testing::Test::HasFailure())
                return;
            const size_t n = (size_t)w * h;
            Guarded<float> src(n, rng.below(64)), plain(n, rng.below(64)), vector(n, rng.below(64));
            Guarded<uint16_t> samples(n, 0), cut_plain(n, rng.below(64)), cut_vector(n, rng.below(64));
            fill_samples(rng, samples.values());
            for (size_t i = 0; i < n; i++)
                src[i] = samples[i] * (rng.below(50) ? 1.0f : -1e30f);
            const gauss_iir_coef_t c = gauss_iir_coef(rng.unit() * 8.0f);
            gauss_iir_f32_plain(plain.data(), src.data(), w, h, c);
            ASSERT_TRUE(gauss_iir_f32_simd(vector.data(), src.data(), w, h, c));
            ASSERT_TRUE(same_bits(plain, vector, w)) << w << "x" << h;
            ASSERT_TRUE(gauss_iir_f32_simd(src.data(), src.data(), w, h, c));
            ASSERT_TRUE(same_bits(plain, src, w)) << "in place, " << w << "x" << h;

            for (float &v : src.values()) {
                const uint32_t bits = (uint32_t)rng.bits();
                if (rng.below(2))
                    v = rng.unit() * 70000.0f - 1000.0f;
                else
                    memcpy(&v, &bits, 4);
            }
            gauss_iir_to_u16_plain(cut_plain.data(), src.data(), n);
            gauss_iir_to_u16_simd(cut_vector.data(), src.data(), n);
            ASSERT_TRUE(same_bits(cut_plain, cut_vector, w));
        });
    });
}
