// Vector forms of the point cloud against their plain forms.
#include <cmath>

#include "image/pcl_kernels.h"
#include "support/kernel_check.h"

namespace {

// Distances, and what must not pass for one.
float metres(KernelRng &rng)
{
    static const float ends[] = {0.0f,     -0.0f,     59.999996f, 60.0f, NAN,
                                 INFINITY, -INFINITY, 1e-40f,     3e38f, -2.0f};
    return rng.below(6) == 0 ? ends[rng.below(10)] : rng.unit() * 61.0f;
}

template <class T>
void check(void (*plain)(const pcl_args_t &, const T *), void (*vector)(const pcl_args_t &, const T *))
{
    KernelRng rng;
    for_each_target([&] {
        for_each_size([&](int w, int h) {
            if (testing::Test::HasFailure())
                return;
            const size_t n = (size_t)w * h;
            Guarded<T> dist(n, rng.below(64));
            Guarded<float> tbl(n, rng.below(64)), extra(n, rng.below(64));
            for (size_t i = 0; i < n; i++) {
                dist[i] =
                    sizeof(T) == 4 ? (T)metres(rng) : (T)(rng.below(8) ? rng.bits() : 59999 + rng.below(3));
                tbl[i] = rng.unit() - 0.5f;
                const uint32_t bits = (uint32_t)rng.bits();
                memcpy(extra.data() + i, &bits, 4);
            }
            const float lens[4] = {w * rng.unit(), h * rng.unit(), 1 + w * rng.unit(), 1 + w * rng.unit()};
            for (const pcl_kind_t kind : {PCL_XYZ, PCL_XYZD, PCL_Z}) {
                for (int form = 0; form < 4; form++) {
                    const size_t values = kind == PCL_XYZ ? 3 : kind == PCL_XYZD ? 4 : 1;
                    Guarded<float> a(n * values, rng.below(64)), b(n * values, rng.below(64));
                    pcl_args_t args = {
                        a.data(),       form & 1 ? tbl.data() : nullptr, extra.data(), w, h, lens, kind,
                        (form & 2) != 0};
                    plain(args, dist.data());
                    args.pcl = b.data();
                    vector(args, dist.data());
                    ASSERT_TRUE(same_bits(a, b, w * values))
                        << w << "x" << h << " kind " << kind << " form " << form;
                }
            }
        });
    });
}

} // namespace

TEST(PclKernels, F32)
{
    check<float>(pcl_f32_plain, pcl_f32_simd);
}

TEST(PclKernels, U16)
{
    check<uint16_t>(pcl_u16_plain, pcl_u16_simd);
}
