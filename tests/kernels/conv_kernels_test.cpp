// Vector forms of the element conversions against their plain forms.
#include <vector>

#include "image/conv_kernels.h"
#include "support/kernel_check.h"

namespace {

// Bits of every kind: NaN of all sorts, infinities, subnormals, and values about the ends of the integers.
float hostile(KernelRng &rng)
{
    static const float ends[] = {0.0f,          -0.0f,          0.99999994f,    1.0f,
                                 255.5f,        256.0f,         65535.0f,       65536.0f,
                                 -0.5f,         2147483520.0f,  2147483648.0f,  4294967040.0f,
                                 4294967296.0f, -2147483648.0f, -2147483904.0f, 1e38f};
    const uint32_t bits = (uint32_t)rng.bits();
    float v;
    memcpy(&v, &bits, 4);
    switch (rng.below(4)) {
    case 0:
        return v;
    case 1:
        return ends[rng.below(16)];
    default:
        return rng.unit() * 100000.0f - 1000.0f;
    }
}

template <class D, class S, class F>
void check(const char *name, void (*plain)(D *, const S *, int, F), void (*vector)(D *, const S *, int, F),
           const std::vector<F> &factors)
{
    SCOPED_TRACE(name);
    KernelRng rng;
    for_each_target([&] {
        for (int n = 1; n < 300; n += n < 140 ? 1 : 37) {
            Guarded<S> src((size_t)n, rng.below(64));
            for (S &v : src.values()) {
                if constexpr (sizeof(S) == 2)
                    v = (S)rng.bits();
                else {
                    const float f = hostile(rng);
                    memcpy(&v, &f, 4);
                }
            }
            for (const F factor : factors) {
                Guarded<D> a((size_t)n, rng.below(64)), b((size_t)n, rng.below(64));
                plain(a.data(), src.data(), n, factor);
                vector(b.data(), src.data(), n, factor);
                ASSERT_TRUE(same_bits(a, b, n)) << "factor " << factor;
            }
        }
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
