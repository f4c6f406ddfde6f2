#include "image/depth_kernels.h"

#include <algorithm>
#include <cstddef>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/flypix_simd.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

#if TQ_PLAIN_TARGET

void FlypixK3(uint16_t *dst, const uint16_t *src, int w, int h, int thr)
{
    flypix_u16_k3_plain(dst, src, w, h, thr);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

using D32 = hn::ScalableTag<int32_t>;
using V32 = hn::Vec<D32>;
using D16 = hn::ScalableTag<uint16_t>;
using V16 = hn::Vec<D16>;
using I16 = hn::ScalableTag<int16_t>;

// A vector of u16 becomes two of 32 bits by interleaving with zeros, in blocks of 128 bits; packing the two
// with signed saturation puts the pixels back in their order.
HWY_INLINE V32 Lower(V16 v)
{
    return hn::BitCast(D32(), hn::InterleaveLower(D16(), v, hn::Zero(D16())));
}

HWY_INLINE V32 Upper(V16 v)
{
    return hn::BitCast(D32(), hn::InterleaveUpper(D16(), v, hn::Zero(D16())));
}

// What a row gives to the gradients of the three rows that it belongs to: r - l and l + 2 c + r.
struct Row {
    V32 across0, along0, across1, along1;
    V16 centre;
};

HWY_INLINE Row LoadRow(const uint16_t *p)
{
    const D16 d;
    const V16 l = hn::LoadU(d, p - 1), c = hn::LoadU(d, p), r = hn::LoadU(d, p + 1);
    const V32 l0 = Lower(l), c0 = Lower(c), r0 = Lower(r);
    const V32 l1 = Upper(l), c1 = Upper(c), r1 = Upper(r);
    return {hn::Sub(r0, l0), hn::Add(hn::Add(l0, r0), hn::Add(c0, c0)), hn::Sub(r1, l1),
            hn::Add(hn::Add(l1, r1), hn::Add(c1, c1)), c};
}

// All comparisons are exact in 32 bits. c * c * thr / 1024 stays below 2^28 for thr up to 63, and a gradient
// beyond 32767 still exceeds that when it is cut to 16 bits.
#if HWY_ARCH_X86

// Pairs of 16 bits to 32: a0 * b0 + a1 * b1.
HWY_INLINE V32 PairDot(hn::Vec<I16> a, hn::Vec<I16> b)
{
    V32 none = hn::Zero(D32());
    return hn::ReorderWidenMulAccumulate(D32(), a, b, hn::Zero(D32()), none);
}

HWY_INLINE void Gradients(V32 gx0, V32 gy0, V32 gx1, V32 gy1, V32 &g0, V32 &g1)
{
    const I16 d;
    const hn::RebindToUnsigned<D32> du;
    const auto gx = hn::ReorderDemote2To(d, gx0, gx1);
    const auto gy = hn::ReorderDemote2To(d, gy0, gy1);
    const auto lo = hn::InterleaveLower(d, gx, gy);
    const auto hi = hn::InterleaveUpper(d, gx, gy);
    g0 = hn::BitCast(D32(), hn::ShiftRight<2>(hn::BitCast(du, PairDot(lo, lo))));
    g1 = hn::BitCast(D32(), hn::ShiftRight<2>(hn::BitCast(du, PairDot(hi, hi))));
}

// With c * c = h * 65536 + l the limit is h * thr * 64 + l * thr / 1024; h goes into the signed product less
// 32768.
HWY_INLINE void Limits(V16 c, int thr, V32 &l0, V32 &l1)
{
    const D16 d;
    const I16 di;
    const V16 h = hn::Xor(hn::MulHigh(c, c), hn::Set(d, 0x8000));
    const V16 l = hn::MulHigh(hn::Mul(c, c), hn::Set(d, (uint16_t)(thr << 6)));
    const auto weight = hn::BitCast(di, hn::Set(D32(), 1 << 16 | thr << 6));
    const V32 bias = hn::Set(D32(), thr << 21);
    l0 = hn::Add(PairDot(hn::BitCast(di, hn::InterleaveLower(d, h, l)), weight), bias);
    l1 = hn::Add(PairDot(hn::BitCast(di, hn::InterleaveUpper(d, h, l)), weight), bias);
}

#else

HWY_INLINE V32 Gradient(V32 gx, V32 gy)
{
    const V32 top = hn::Set(D32(), 32767), low = hn::Set(D32(), -32767);
    const V32 cx = hn::Max(hn::Min(gx, top), low);
    const V32 cy = hn::Max(hn::Min(gy, top), low);
    return hn::ShiftRight<2>(hn::Add(hn::Mul(cx, cx), hn::Mul(cy, cy)));
}

HWY_INLINE void Gradients(V32 gx0, V32 gy0, V32 gx1, V32 gy1, V32 &g0, V32 &g1)
{
    g0 = Gradient(gx0, gy0);
    g1 = Gradient(gx1, gy1);
}

// With c * c = h * 1024 + l the limit is h * thr + l * thr / 1024.
HWY_INLINE V32 Limit(V32 c, int thr)
{
    const hn::RebindToUnsigned<D32> d;
    const auto square = hn::Mul(hn::BitCast(d, c), hn::BitCast(d, c));
    const auto h = hn::Mul(hn::ShiftRight<10>(square), hn::Set(d, (uint32_t)thr));
    const auto l = hn::Mul(hn::And(square, hn::Set(d, 1023)), hn::Set(d, (uint32_t)thr));
    return hn::BitCast(D32(), hn::Add(h, hn::ShiftRight<10>(l)));
}

HWY_INLINE void Limits(V16 c, int thr, V32 &l0, V32 &l1)
{
    l0 = Limit(Lower(c), thr);
    l1 = Limit(Upper(c), thr);
}

#endif

// Walks down a strip one vector of u16 wide, so that each row is loaded and summed once.
HWY_INLINE void Strip(uint16_t *dst, const uint16_t *src, int w, int h, int x, int thr)
{
    const D16 d;
    const I16 di;
    const uint16_t *p = src + x;
    uint16_t *out = dst + x;
    Row m = LoadRow(p);
    V32 above0 = m.along0, above1 = m.along1;
    V32 pair0 = hn::Add(m.across0, m.across0), pair1 = hn::Add(m.across1, m.across1); // row and row above
    for (int y = 0; y < h; y++) {
        if (y < h - 1)
            p += w;
        const Row b = LoadRow(p);
        const V32 next0 = hn::Add(m.across0, b.across0), next1 = hn::Add(m.across1, b.across1);
        V32 g0, g1, l0, l1;
        Gradients(hn::Add(pair0, next0), hn::Sub(b.along0, above0), hn::Add(pair1, next1),
                  hn::Sub(b.along1, above1), g0, g1);
        Limits(m.centre, thr, l0, l1);
        const auto less = hn::ReorderDemote2To(di, hn::Sub(l0, g0), hn::Sub(l1, g1)); // the sign counts
        hn::StoreU(hn::AndNot(hn::BitCast(d, hn::ShiftRight<15>(less)), m.centre), d, out);
        out += w;
        pair0 = next0;
        pair1 = next1;
        above0 = m.along0;
        above1 = m.along1;
        m = b;
    }
}

// The first and the last column, whose neighbours on one side are themselves.
HWY_INLINE void EdgeColumn(uint16_t *dst, const uint16_t *src, int w, int h, int x, int thr)
{
    const int l = std::max(x - 1, 0);
    const int r = std::min(x + 1, w - 1);
    for (int y = 0; y < h; y++) {
        const uint16_t *m = src + (ptrdiff_t)y * w;
        const uint16_t *t = y > 0 ? m - w : m;
        const uint16_t *b = y < h - 1 ? m + w : m;
        const int64_t gx = (t[r] - t[l]) + (b[r] - b[l]) + 2 * (m[r] - m[l]);
        const int64_t gy = (b[l] - t[l]) + (b[r] - t[r]) + 2 * (b[x] - t[x]);
        const int64_t c = m[x];
        dst[(ptrdiff_t)y * w + x] = c * c * thr / 1024 < (gx * gx + gy * gy) >> 2 ? 0 : m[x];
    }
}

void FlypixK3(uint16_t *dst, const uint16_t *src, int w, int h, int thr)
{
    const int n = (int)hn::Lanes(D16());
    if (w < n + 2) {
        flypix_u16_k3_plain(dst, src, w, h, thr);
        return;
    }
    for (int x = 1; x < w - 1; x += n)
        Strip(dst, src, w, h, std::min(x, w - 1 - n), thr); // the last one overlaps
    EdgeColumn(dst, src, w, h, 0, thr);
    EdgeColumn(dst, src, w, h, w - 1, thr);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(FlypixK3);

void flypix_u16_k3_simd(uint16_t *dst, const uint16_t *src, int w, int h, int thr)
{
    HWY_DYNAMIC_DISPATCH(FlypixK3)(dst, src, w, h, thr);
}

#endif
