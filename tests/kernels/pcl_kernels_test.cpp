// Vector forms of the point cloud against their plain forms.
#include "image/pcl_kernels.h"
#include "support/kernel_check.h"

namespace {

template <class T>
void check(void (*plain)(const pcl_args_t &, const T *), void (*vector)(const pcl_args_t &, const T *))
{
    for_each_size([&](KernelRng &rng, int w, int h) {
        const size_t n = (size_t)w * h;
        Guarded<T> dist(n, rng.below(64));
        Guarded<float> tbl(n, rng.below(64)), extra(n, rng.below(64));
        for (size_t i = 0; i < n; i++) {
            // About 60 m, in metres or millimetres, a distance is no more one.
            dist[i] = sizeof(T) == 4 ? (T)some_float(rng, 0, 61)
                                     : (T)(rng.below(8) ? rng.bits() : 59999 + rng.below(3));
            tbl[i] = rng.unit() - 0.5f;
            extra[i] = some_float(rng, 0, 1);
        }
        const float lens[4] = {w * rng.unit(), h * rng.unit(), 1 + w * rng.unit(), 1 + w * rng.unit()};
        for (int form = 0; form < 12; form++) {
            const pcl_kind_t kind = std::array{PCL_XYZ, PCL_XYZD, PCL_Z}[form / 4];
            const size_t values = std::array{3, 4, 1}[form / 4];
            const auto run = [&](auto f, float *out) {
                f({out, form & 1 ? tbl.data() : nullptr, extra.data(), w, h, lens, kind, (form & 2) != 0},
                  dist.data());
            };
            ASSERT_TRUE(same_results<float>(n * values, rng.below(64), plain, vector, run))
                << "kind " << kind << " form " << form % 4;
        }
    });
}

} // namespace

TEST(PclKernels, BothSamples)
{
    check<float>(pcl_f32_plain, pcl_f32_simd);
    check<uint16_t>(pcl_u16_plain, pcl_u16_simd);
}
