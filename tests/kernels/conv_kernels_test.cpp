// Vector forms of the element conversions, and of the gather through a lens map, against their plain forms.
#include <bit>
#include <vector>

#include "image/conv_kernels.h"
#include "image/lens_map.h"
#include "support/kernel_check.h"
#include "tq_lens.h"

namespace {

template <class T> void fill(KernelRng &rng, Guarded<T> *values)
{
    for (T &v : values->values())
        if constexpr (sizeof(T) == 2)
            v = (T)rng.bits();
        else
            v = std::bit_cast<T>(some_float(rng, -1000, 99000));
}

template <class D, class S, class F>
void check(const char *name, void (*plain)(D *, const S *, int, F), void (*vector)(D *, const S *, int, F),
           const std::vector<F> &factors)
{
    SCOPED_TRACE(name);
    for_each_length([&](KernelRng &rng, int n) {
        Guarded<S> src((size_t)n, rng.below(64));
        fill(rng, &src);
        for (const F factor : factors) {
            const auto run = [&](auto form, D *dst) { form(dst, src.data(), n, factor); };
            ASSERT_TRUE(same_results<D>(n, rng.below(64), plain, vector, run)) << "factor " << factor;
        }
    });
}

template <class T>
void check_gather(void (*plain)(T *, const T *, const uint32_t *, int, T),
                  void (*vector)(T *, const T *, const uint32_t *, int, T))
{
    for_each_length([&](KernelRng &rng, int n) {
        const uint32_t size = 1 + rng.below(500), rare = 1 + rng.below(60); // few without a source, or most
        Guarded<T> src(size, rng.below(64));
        fill(rng, &src);
        Guarded<uint32_t> map((size_t)n, rng.below(64));
        for (uint32_t &v : map.values())
            v = rng.below(rare) == 0 ? TQ_CALIB_LEN_NO_SOURCE : rng.below(size);
        const auto run = [&](auto form, T *dst) { form(dst, src.data(), map.data(), n, (T)65500); };
        ASSERT_TRUE(same_results<T>(n, rng.below(64), plain, vector, run));
    });
}

} // namespace

TEST(ConvKernels, AllForms)
{
    const std::vector<float> factors = {1.0f, 0.001f, 1000.0f, -3.0f, 1e30f, 0.0f};
    check<uint8_t, uint16_t, int>("u16 u8", conv_u16_u8_plain, conv_u16_u8_simd, {0, 1, 4, 8, 15, 16});
    check<float, uint16_t, float>("u16 f32", conv_u16_f32_plain, conv_u16_f32_simd, factors);
    check<uint32_t, uint16_t, uint16_t>("u16 u32", conv_u16_u32_plain, conv_u16_u32_simd, {0, 1, 3, 65535});
    check<uint8_t, float, float>("f32 u8", conv_f32_u8_plain, conv_f32_u8_simd, factors);
    check<uint16_t, float, float>("f32 u16", conv_f32_u16_plain, conv_f32_u16_simd, factors);
    check<uint32_t, float, float>("f32 u32", conv_f32_u32_plain, conv_f32_u32_simd, factors);
    check<float, uint32_t, float>("u32 f32", conv_u32_f32_plain, conv_u32_f32_simd, factors);
}

TEST(LensKernels, Undistort)
{
    check_gather<uint16_t>(undistort_u16_plain, undistort_u16_simd);
    check_gather<float>(undistort_f32_plain, undistort_f32_simd);
}
