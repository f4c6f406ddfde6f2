// Mean of the eight neighbours on vectors, in lanes of the samples' own width. A sum of eight doesn't fit;
// but with H the sum of the samples' upper bits, v >> 3, which does, it is 8 * H + L with L below 57, and so
// the sum that wrapped tells L.
#include <cstdint>

#include "image/smooth_kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/box_simd.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "image/window3_simd.h"
#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {
#if TQ_PLAIN_TARGET

void Box3x3U16(uint16_t *dst, const uint16_t *src, int w, int h)
{
    box2d_u16_k3_plain(dst, src, w, h);
}

void Box3x3U32(uint32_t *dst, const uint32_t *src, int w, int h)
{
    box2d_u32_k3_plain(dst, src, w, h);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

template <class Sample> struct box_t {
    using T = Sample;
    using D = hn::ScalableTag<T>;
    using V = hn::Vec<D>;
    struct row_t {
        V sum, high, mid, mid_high; // of three samples, and the one in the middle
    };
    struct pair_t {
        V sum, high;
    };

    static HWY_INLINE row_t Row(D d, const T *p)
    {
        const V l = hn::LoadU(d, p - 1), m = hn::LoadU(d, p), r = hn::LoadU(d, p + 1);
        const V mh = hn::ShiftRight<3>(m);
        return {hn::Add(hn::Add(l, r), m), hn::Add(hn::Add(hn::ShiftRight<3>(l), hn::ShiftRight<3>(r)), mh),
                m, mh};
    }
    static HWY_INLINE pair_t Pair(const row_t &b, const row_t &c)
    {
        return {hn::Add(b.sum, c.sum), hn::Add(b.high, c.high)};
    }
    static HWY_INLINE V Out(const row_t &a, const row_t &b, const pair_t &bc)
    {
        const V sum = hn::Add(bc.sum, hn::Sub(a.sum, b.mid));
        const V high = hn::Add(bc.high, hn::Sub(a.high, b.mid_high));
        return hn::Add(high, hn::ShiftRight<3>(hn::Sub(sum, hn::ShiftLeft<3>(high))));
    }
};

void Box3x3U16(uint16_t *dst, const uint16_t *src, int w, int h)
{
    if (w <= (int)hn::Lanes(box_t<uint16_t>::D()))
        return box2d_u16_k3_plain(dst, src, w, h);
    tq_window3::HWY_NAMESPACE::Window3<box_t<uint16_t>>(dst, src, w, h);
}

void Box3x3U32(uint32_t *dst, const uint32_t *src, int w, int h)
{
    if (w <= (int)hn::Lanes(box_t<uint32_t>::D()))
        return box2d_u32_k3_plain(dst, src, w, h);
    tq_window3::HWY_NAMESPACE::Window3<box_t<uint32_t>>(dst, src, w, h);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(Box3x3U16);
HWY_EXPORT(Box3x3U32);

void box2d_u16_k3_simd(uint16_t *dst, const uint16_t *src, int w, int h)
{
    HWY_DYNAMIC_DISPATCH(Box3x3U16)(dst, src, w, h);
}

void box2d_u32_k3_simd(uint32_t *dst, const uint32_t *src, int w, int h)
{
    HWY_DYNAMIC_DISPATCH(Box3x3U32)(dst, src, w, h);
}
#endif
