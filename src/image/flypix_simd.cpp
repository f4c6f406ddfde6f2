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

HWY_INLINE void Gradients(hn::Vec<I16> gx, hn::Vec<I16> gy, V32 &g0, V32 &g1)
{
    const I16 d;
    const hn::RebindToUnsigned<D32> du;
    const auto lo = hn::InterleaveLower(d, gx, gy);
    const auto hi = hn::InterleaveUpper(d, gx, gy);
    g0 = hn::BitCast(D32(), hn::ShiftRight<2>(hn::BitCast(du, PairDot(lo, lo))));
    g1 = hn::BitCast(D32(), hn::ShiftRight<2>(hn::BitCast(du, PairDot(hi, hi))));
}

HWY_INLINE void Gradients(V32 gx0, V32 gy0, V32 gx1, V32 gy1, V32 &g0, V32 &g1)
{
    const I16 d;
    Gradients(hn::ReorderDemote2To(d, gx0, gx1), hn::ReorderDemote2To(d, gy0, gy1), g0, g1);
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

// The same below NARROW, where h stays small.
HWY_INLINE void NarrowLimits(V16 c, int thr, V32 &l0, V32 &l1)
{
    const D16 d;
    const I16 di;
    const V16 h = hn::MulHigh(c, c);
    const V16 l = hn::MulHigh(hn::Mul(c, c), hn::Set(d, (uint16_t)(thr << 6)));
    const auto weight = hn::BitCast(di, hn::Set(D32(), 1 << 16 | thr << 6));
    l0 = PairDot(hn::BitCast(di, hn::InterleaveLower(d, h, l)), weight);
    l1 = PairDot(hn::BitCast(di, hn::InterleaveUpper(d, h, l)), weight);
}

#else

HWY_INLINE void Gradients(hn::Vec<I16> gx, hn::Vec<I16> gy, V32 &g0, V32 &g1)
{
    V32 upper = hn::Zero(D32());
    V32 lower = hn::ReorderWidenMulAccumulate(D32(), gx, gx, hn::Zero(D32()), upper);
    lower = hn::ReorderWidenMulAccumulate(D32(), gy, gy, lower, upper);
    g0 = hn::ShiftRight<2>(lower);
    g1 = hn::ShiftRight<2>(upper);
}

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

HWY_INLINE void NarrowLimits(V16 c, int thr, V32 &l0, V32 &l1)
{
    Limits(c, thr, l0, l1);
}

#endif

// Of the centres those stay whose limit isn't below the gradient.
HWY_INLINE V16 Keep(V16 centre, V32 l0, V32 l1, V32 g0, V32 g1)
{
    const I16 di;
    const auto less = hn::ReorderDemote2To(di, hn::Sub(l0, g0), hn::Sub(l1, g1)); // the sign counts
    return hn::AndNot(hn::BitCast(D16(), hn::ShiftRight<15>(less)), centre);
}

// A part of an image, one vector of u16 wide: its first row and the row above, or itself at the image's edge.
struct part_t {
    const uint16_t *src, *above;
    uint16_t *dst;
    int rows;
    bool last; // below it there is none
};

// Walks down a part, so that each row is loaded and summed once.
HWY_INLINE void Strip(const part_t &at, ptrdiff_t w, int thr)
{
    const D16 d;
    const uint16_t *p = at.src;
    uint16_t *out = at.dst;
    const Row t = LoadRow(at.above);
    Row m = LoadRow(p);
    V32 above0 = t.along0, above1 = t.along1;
    V32 pair0 = hn::Add(t.across0, m.across0), pair1 = hn::Add(t.across1, m.across1); // row and row above
    for (int y = 0; y < at.rows; y++, out += w) {
        if (y < at.rows - at.last)
            p += w;
        const Row b = LoadRow(p);
        const V32 next0 = hn::Add(m.across0, b.across0), next1 = hn::Add(m.across1, b.across1);
        V32 g0, g1, l0, l1;
        Gradients(hn::Add(pair0, next0), hn::Sub(b.along0, above0), hn::Add(pair1, next1),
                  hn::Sub(b.along1, above1), g0, g1);
        Limits(m.centre, thr, l0, l1);
        hn::StoreU(Keep(m.centre, l0, l1, g0, g1), d, out);
        pair0 = next0;
        pair1 = next1;
        above0 = m.along0;
        above1 = m.along1;
        m = b;
    }
}

// Below this four samples, and so a gradient, fit 15 bits and a sign.
constexpr uint16_t NARROW = 8192;

HWY_INLINE bool IsNarrow(const part_t &at, ptrdiff_t w)
{
    const D16 d;
    const auto narrow = [d](V16 bits) HWY_ATTR { return hn::AllTrue(d, hn::Lt(bits, hn::Set(d, NARROW))); };
    V16 bits = hn::Or(hn::LoadU(d, at.above - 1), hn::LoadU(d, at.above + 1));
    if (!narrow(bits)) // mostly seen by the first row
        return false;
    const uint16_t *p = at.src;
    for (int y = 0; y <= at.rows - at.last; y++, p += w)
        bits = hn::Or(bits, hn::Or(hn::LoadU(d, p - 1), hn::LoadU(d, p + 1)));
    return narrow(bits);
}

// The same where all samples are below NARROW, as in most scenes.
HWY_INLINE void NarrowStrip(const part_t &at, ptrdiff_t w, int thr)
{
    using S16 = hn::Vec<I16>;
    struct NarrowRow {
        S16 across, along, centre;
    };
    const D16 d;
    const auto load = [](const uint16_t *p) HWY_ATTR {
        const I16 di;
        const S16 l = hn::BitCast(di, hn::LoadU(D16(), p - 1)), r = hn::BitCast(di, hn::LoadU(D16(), p + 1));
        const S16 c = hn::BitCast(di, hn::LoadU(D16(), p));
        return NarrowRow{hn::Sub(r, l), hn::Add(hn::Add(l, r), hn::Add(c, c)), c};
    };
    const uint16_t *p = at.src;
    uint16_t *out = at.dst;
    const NarrowRow t = load(at.above);
    NarrowRow m = load(p);
    S16 above = t.along, pair = hn::Add(t.across, m.across);
    for (int y = 0; y < at.rows; y++, out += w) {
        if (y < at.rows - at.last)
            p += w;
        const NarrowRow b = load(p);
        const S16 next = hn::Add(m.across, b.across);
        const V16 centre = hn::BitCast(d, m.centre);
        V32 g0, g1, l0, l1;
        Gradients(hn::Add(pair, next), hn::Sub(b.along, above), g0, g1);
        NarrowLimits(centre, thr, l0, l1);
        hn::StoreU(Keep(centre, l0, l1, g0, g1), d, out);
        pair = next;
        above = m.along;
        m = b;
    }
}

// The first and the last column, whose neighbours on one side are themselves; the other ones stand inside.
// All differences across have the same sign, which the square takes away.
HWY_INLINE void EdgeColumn(uint16_t *dst, const uint16_t *src, ptrdiff_t w, int h, ptrdiff_t inside, int thr)
{
    struct EdgeRow {
        int64_t across, along, centre;
    };
    const auto load = [inside](const uint16_t *p) {
        return EdgeRow{p[inside] - p[0], p[inside] + 3 * p[0], p[0]};
    };
    EdgeRow t = load(src), m = t;
    for (int y = 0; y < h; y++, dst += w) {
        if (y < h - 1)
            src += w;
        const EdgeRow b = load(src);
        const int64_t gx = t.across + 2 * m.across + b.across, gy = b.along - t.along, c = m.centre;
        *dst = c * c * thr / 1024 < (gx * gx + gy * gy) >> 2 ? 0 : (uint16_t)c;
        t = m;
        m = b;
    }
}

void FlypixK3(uint16_t *dst, const uint16_t *src, int w, int h, int thr)
{
    const int n = (int)hn::Lanes(D16());
    if (w < n + 2) {
        flypix_u16_k3_plain(dst, src, w, h, thr);
        return;
    }
    const int rows = std::max(10240 / w, 8); // that many stay in the first cache from strip to strip
    for (int y = 0; y < h; y += rows) {
        for (int x = 1; x < w - 1; x += n) {
            const ptrdiff_t from = (ptrdiff_t)y * w + std::min(x, w - 1 - n); // the last one overlaps
            const part_t at = {src + from, src + from - (y ? w : 0), dst + from, std::min(rows, h - y),
                               y + rows >= h};
            if (IsNarrow(at, w))
                NarrowStrip(at, w, thr);
            else
                Strip(at, w, thr);
        }
    }
    EdgeColumn(dst, src, w, h, 1, thr);
    EdgeColumn(dst + w - 1, src + w - 1, w, h, -1, thr);
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
