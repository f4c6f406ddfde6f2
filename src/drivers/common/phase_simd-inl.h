// Phase, amplitude and gray of a vector of pixels, for the drivers' vector kernels. Equal to phase_angle for
// every I and Q of at most 13 bits: the quotient that selects the table entry is exact in f32, and the entry
// itself follows from the index by a polynomial in separate multiplications and additions, so that no table
// is read.
//
// Included by files that Highway compiles once for each target, inside of its namespace blocks.
#if defined(TQ_PHASE_SIMD_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef TQ_PHASE_SIMD_INL_H
#undef TQ_PHASE_SIMD_INL_H
#else
#define TQ_PHASE_SIMD_INL_H
#endif

#include <hwy/highway.h>

#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {
#if !TQ_PLAIN_TARGET

// Entry k of the arctangent table, k a whole number from 0 to 4095. Of the result the lower 16 bits count.
template <class DF, class VF> HWY_INLINE auto AtanEntry(DF df, VF k)
{
    namespace hn = hwy::HWY_NAMESPACE;
    const hn::RebindToUnsigned<DF> du;
    const auto u = hn::Mul(k, hn::Set(df, 1.0f / 4096));
    const auto s = hn::Mul(u, u);
    // Pairs of terms beside each other: in one chain each step would wait for the last.
    const auto z = hn::Mul(s, s);
    const auto p01 = hn::Add(hn::Mul(hn::Set(df, -0x1.b2ce78p+10f), s), hn::Set(df, 0x1.181d04p+10f));
    const auto p23 = hn::Add(hn::Mul(hn::Set(df, -0x1.61d8e8p+9f), s), hn::Set(df, 0x1.038c08p+10f));
    const auto p45 = hn::Add(hn::Mul(hn::Set(df, -0x1.9bb848p+7f), s), hn::Set(df, 0x1.c09254p+8f));
    auto p = hn::Add(hn::Mul(hn::Set(df, 0x1.71ea9p+5f), z), p45);
    p = hn::Add(hn::Mul(hn::Add(hn::Mul(p, z), p23), z), p01);
    // What the entry has beyond k is the nearest to u p. From 2^23 on floats are whole numbers: the sum is
    // the entry, which stands in its lower bits.
    return hn::BitCast(du, hn::Add(hn::Add(k, hn::Set(df, 0x1.8p+23f)), hn::Mul(u, p)));
}

// The quotient of an octant and its table entry; both operands are positive.
template <class DU, class VU> HWY_INLINE VU OctantEntry(DU, VU q, VU i)
{
    namespace hn = hwy::HWY_NAMESPACE;
    const hn::RebindToSigned<DU> di;
    const hn::RebindToFloat<DU> df;
    const auto top = hn::ConvertTo(df, hn::BitCast(di, hn::ShiftLeft<12>(q)));
    return AtanEntry(df, hn::Floor(hn::Div(top, hn::ConvertTo(df, hn::BitCast(di, i)))));
}

// Angles of (I, Q), 0 to one turn of 32768. The octant fold stays in 16-bit lanes; only the quotients need
// more, in even and in odd lanes.
template <class DS, class VS> HWY_INLINE VS PhaseAngles(DS ds, VS i, VS q)
{
    namespace hn = hwy::HWY_NAMESPACE;
    const hn::RepartitionToWide<DS> di;
    const hn::RebindToUnsigned<decltype(di)> du;
    const auto zero = hn::Zero(ds);
    const auto on_axis = hn::Eq(q, zero);
    const auto axis = hn::IfThenElseZero(hn::Lt(i, zero), hn::Set(ds, 16384));
    const auto lower = hn::Lt(q, zero);
    i = hn::IfThenElse(lower, hn::Neg(i), i);
    q = hn::Abs(q);
    auto oct = hn::IfThenElseZero(lower, hn::Set(ds, 16384));
    const auto left = hn::Lt(i, hn::Set(ds, 1));
    const auto i1 = hn::IfThenElse(left, q, i), q1 = hn::IfThenElse(left, hn::Neg(i), q);
    oct = hn::Add(oct, hn::IfThenElseZero(left, hn::Set(ds, 8192)));
    const auto steep = hn::Not(hn::Lt(q1, i1));
    const auto i2 = hn::BitCast(du, hn::IfThenElse(steep, hn::Add(i1, q1), i1));
    const auto q2 = hn::BitCast(du, hn::IfThenElse(steep, hn::Sub(q1, i1), q1));
    oct = hn::Add(oct, hn::IfThenElseZero(steep, hn::Set(ds, 4096)));

    const auto low = hn::Set(du, 0xFFFF);
    const auto even = OctantEntry(du, hn::And(q2, low), hn::And(i2, low));
    const auto odd = OctantEntry(du, hn::ShiftRight<16>(q2), hn::ShiftRight<16>(i2));
    // On an axis without light entries may be anything.
    const auto entry = hn::OddEven(hn::BitCast(ds, hn::ShiftLeft<16>(odd)), hn::BitCast(ds, even));
    return hn::IfThenElse(on_axis, axis, hn::Add(oct, hn::BitCast(ds, entry)));
}

// Squared amplitudes of (I, Q): those of the lower half of the lanes, and of the upper.
template <class VU> struct amps_t {
    VU lower, upper;
};
template <class DS, class VS> HWY_INLINE auto SquaredAmps([[maybe_unused]] DS ds, VS i, VS q)
{
    namespace hn = hwy::HWY_NAMESPACE;
    const hn::RepartitionToWide<DS> di;
    const hn::RebindToUnsigned<decltype(di)> du;
    const auto zero = hn::Zero(di);
    auto lower = zero, upper = zero;
#if HWY_ARCH_X86
    // Products are summed by pairs there. Interleaving works on blocks of 128 bits: their halves are put
    // where it takes them from.
    constexpr size_t LANES = hn::MaxLanes(di);
    if constexpr (LANES > 4) {
        HWY_ALIGN static constexpr int32_t PLACES[2][16] = {
            {0, 1, 4, 5, 2, 3, 6, 7}, {0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15}};
        const auto order = hn::SetTableIndices(di, PLACES[LANES == 16]);
        i = hn::BitCast(ds, hn::TableLookupLanes(hn::BitCast(di, i), order));
        q = hn::BitCast(ds, hn::TableLookupLanes(hn::BitCast(di, q), order));
    }
    const auto first = hn::InterleaveLower(ds, i, q), second = hn::InterleaveUpper(ds, i, q);
    auto none = zero;
    lower = hn::ReorderWidenMulAccumulate(di, first, first, zero, none);
    upper = hn::ReorderWidenMulAccumulate(di, second, second, zero, none);
#else
    lower = hn::ReorderWidenMulAccumulate(di, i, i, lower, upper);
    lower = hn::ReorderWidenMulAccumulate(di, q, q, lower, upper);
#endif
    using VU = hn::Vec<decltype(du)>;
    return amps_t<VU>{hn::ShiftRight<2>(hn::BitCast(du, lower)), hn::ShiftRight<2>(hn::BitCast(du, upper))};
}

// Both in order, clamped to 16 bits.
template <class DS, class VI> HWY_INLINE auto PackInOrder(DS ds, VI lower, VI upper)
{
    namespace hn = hwy::HWY_NAMESPACE;
    auto packed = hn::ReorderDemote2To(ds, lower, upper);
#if HWY_ARCH_X86
    const hn::RepartitionToWide<DS> di;
    constexpr size_t LANES = hn::MaxLanes(di);
    if constexpr (LANES > 4) { // blocks of 128 bits were packed apart
        HWY_ALIGN static constexpr int32_t PLACES[2][16] = {
            {0, 1, 4, 5, 2, 3, 6, 7}, {0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15}};
        const auto order = hn::SetTableIndices(di, PLACES[LANES == 16]);
        packed = hn::BitCast(ds, hn::TableLookupLanes(hn::BitCast(di, packed), order));
    }
#endif
    return packed;
}

// fastsqrt of squared amplitudes. As sums shifted down by 2 they are positive as signed words, too.
template <class VU> HWY_INLINE auto FastSqrt(VU amp)
{
    namespace hn = hwy::HWY_NAMESPACE;
    const hn::DFromV<VU> du;
    const hn::RebindToSigned<decltype(du)> di;
    const hn::RebindToFloat<decltype(du)> df;
    const auto bits = hn::BitCast(di, hn::ConvertTo(df, hn::BitCast(di, amp)));
    const auto root =
        hn::Add(hn::ShiftRight<1>(hn::Sub(bits, hn::Set(di, 0x800000))), hn::Set(di, 0x20000000));
    return hn::ConvertTo(di, hn::BitCast(df, root));
}

#endif
} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#endif
