// The phase of a vector of pixels, for the drivers' vector kernels. Equal to phase_angle for every I and Q of
// at most 13 bits: the quotient that selects the table entry is exact in f32, and the entry itself follows
// from the index by a polynomial in separate multiplications and additions, so that no table is read.
//
// Included by files that Highway compiles once for each target, inside of its namespace blocks.
#if defined(TQ_PHASE_SIMD_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef TQ_PHASE_SIMD_INL_H
#undef TQ_PHASE_SIMD_INL_H
#else
#define TQ_PHASE_SIMD_INL_H
#endif

#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

// Entry k of the arctangent table, k from 0 to 4095.
template <class DI, class VI> HWY_INLINE VI AtanEntry(DI di, VI k)
{
    namespace hn = hwy::HWY_NAMESPACE;
    const hn::RebindToFloat<DI> df;
    const auto u = hn::Mul(hn::ConvertTo(df, k), hn::Set(df, 1.0f / 4095.0f));
    const auto s = hn::Mul(u, u);
    auto p = hn::Set(df, 0x1.4bb37ap+4f);
    p = hn::Add(hn::Mul(p, s), hn::Set(df, -0x1.6f64c2p+6f));
    p = hn::Add(hn::Mul(p, s), hn::Set(df, 0x1.8b8326p+7f));
    p = hn::Add(hn::Mul(p, s), hn::Set(df, -0x1.2fb714p+8f));
    p = hn::Add(hn::Mul(p, s), hn::Set(df, 0x1.a5220ap+8f));
    p = hn::Add(hn::Mul(p, s), hn::Set(df, -0x1.3582cep+9f));
    p = hn::Add(hn::Mul(p, s), hn::Set(df, 0x1.17cbep+10f));
    const auto r = hn::Add(u, hn::Mul(hn::Mul(u, hn::Sub(hn::Set(df, 1.0f), s)), p));
    return hn::Add(k, hn::NearestInt(r));
}

// Angle of (I, Q), 0 to one turn of 32768.
template <class DI, class VI> HWY_INLINE VI PhaseAngle(DI di, VI i, VI q)
{
    namespace hn = hwy::HWY_NAMESPACE;
    const hn::RebindToFloat<DI> df;
    const auto zero = hn::Zero(di);
    const auto on_axis = hn::Eq(q, zero);
    const auto axis = hn::IfThenElseZero(hn::Lt(i, zero), hn::Set(di, 16384));

    const auto lower = hn::Lt(q, zero);
    i = hn::IfThenElse(lower, hn::Neg(i), i);
    q = hn::Abs(q);
    auto oct = hn::IfThenElseZero(lower, hn::Set(di, 16384));
    const auto left = hn::Lt(i, hn::Set(di, 1));
    const auto i1 = hn::IfThenElse(left, q, i), q1 = hn::IfThenElse(left, hn::Neg(i), q);
    oct = hn::Add(oct, hn::IfThenElseZero(left, hn::Set(di, 8192)));
    const auto steep = hn::Not(hn::Lt(q1, i1));
    const auto i2 = hn::IfThenElse(steep, hn::Add(i1, q1), i1);
    const auto q2 = hn::IfThenElse(steep, hn::Sub(q1, i1), q1);
    oct = hn::Add(oct, hn::IfThenElseZero(steep, hn::Set(di, 4096)));

    const auto quotient = hn::Div(hn::ConvertTo(df, hn::ShiftLeft<12>(q2)), hn::ConvertTo(df, i2));
    const auto k = hn::ConvertTo(di, quotient); // truncates
    return hn::IfThenElse(on_axis, axis, hn::Add(oct, AtanEntry(di, k)));
}

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#endif
