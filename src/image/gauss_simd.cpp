// Binomial smoothing on vectors of 16-bit lanes. A sum of weight 16 doesn't fit; but with H the weighted sum
// of the samples' upper bits, v >> 4, which does, it is 16 * H + L with L below 241, and so the sum that
// wrapped tells L.
#include <cstdint>

#include "image/smooth_kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/gauss_simd.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "image/window3_simd.h"
#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {
#if TQ_PLAIN_TARGET

void Gauss3x3(uint16_t *dst, const uint16_t *src, int w, int h)
{
    gauss2d_u16_k3_plain(dst, src, w, h);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

struct gauss_t {
    using T = uint16_t;
    using D = hn::ScalableTag<T>;
    using V = hn::Vec<D>;
    struct row_t {
        V sum, high; // weights 1 2 1
    };
    using pair_t = row_t;

    static HWY_INLINE row_t Row(D d, const T *p)
    {
        const V l = hn::LoadU(d, p - 1), m = hn::LoadU(d, p), r = hn::LoadU(d, p + 1);
        const V mh = hn::ShiftRight<4>(m);
        return {hn::Add(hn::Add(l, r), hn::Add(m, m)),
                hn::Add(hn::Add(hn::ShiftRight<4>(l), hn::ShiftRight<4>(r)), hn::Add(mh, mh))};
    }
    static HWY_INLINE pair_t Pair(const row_t &b, const row_t &c)
    {
        return {hn::Add(b.sum, c.sum), hn::Add(b.high, c.high)};
    }
    static HWY_INLINE V Out(const row_t &a, const row_t &b, const pair_t &bc)
    {
        const V sum = hn::Add(bc.sum, hn::Add(a.sum, b.sum));
        const V high = hn::Add(bc.high, hn::Add(a.high, b.high));
        return hn::Add(high, hn::ShiftRight<4>(hn::Sub(sum, hn::ShiftLeft<4>(high))));
    }
};

void Gauss3x3(uint16_t *dst, const uint16_t *src, int w, int h)
{
    if (w <= (int)hn::Lanes(gauss_t::D()))
        return gauss2d_u16_k3_plain(dst, src, w, h);
    tq_window3::HWY_NAMESPACE::Window3<gauss_t>(dst, src, w, h);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(Gauss3x3);

void gauss2d_u16_k3_simd(uint16_t *dst, const uint16_t *src, int w, int h)
{
    HWY_DYNAMIC_DISPATCH(Gauss3x3)(dst, src, w, h);
}
#endif
