// Vector forms of the gather through a lens map against their plain forms.
#include "image/lens_map.h"
#include "support/kernel_check.h"
#include "tq_lens.h"

namespace {

template <class T>
void check(void (*plain)(T *, const T *, const uint32_t *, int, T),
           void (*vector)(T *, const T *, const uint32_t *, int, T))
{
    KernelRng rng;
    for_each_target([&] {
        for (int n = 1; n < 400; n += n < 100 ? 1 : 17) {
            const size_t size = 1 + rng.below(500);
            Guarded<T> src(size, rng.below(64)), a((size_t)n, rng.below(64)), b((size_t)n, rng.below(64));
            for (T &v : src.values())
                v = (T)rng.bits();
            Guarded<uint32_t> map((size_t)n, rng.below(64));
            const uint32_t rare = 1 + rng.below(60); // few pixels without a source, or most
            for (uint32_t &v : map.values())
                v = rng.below(rare) == 0 ? TQ_CALIB_LEN_NO_SOURCE : rng.below((uint32_t)size);
            plain(a.data(), src.data(), map.data(), n, (T)65500);
            vector(b.data(), src.data(), map.data(), n, (T)65500);
            ASSERT_TRUE(same_bits(a, b, n));
        }
    });
}

} // namespace

TEST(LensKernels, Undistort)
{
    check<uint16_t>(undistort_u16_plain, undistort_u16_simd);
    check<float>(undistort_f32_plain, undistort_f32_simd);
}
