// The kernels of the SONY family on vectors: unpacking, distance, amplitude and unwrapping. Ranges beyond 16
// bits take the plain form.
#include "drivers/imx/imx_kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "drivers/imx/imx_simd.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "drivers/common/phase.h"
#include "drivers/common/phase_simd-inl.h"
#include "simd/dispatch.h"
#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

#if TQ_PLAIN_TARGET

void Unpack(int16_t *out, const uint8_t *packed, size_t n)
{
    imx_unpack_plain(out, packed, n);
}
void Dist(uint16_t *dist, uint32_t *amp, const int16_t *i, const int16_t *q, size_t n, const imx_map_t &map,
          const imx_line_t &line)
{
    imx_dist_plain(dist, amp, i, q, n, map, line);
}
void Amp(uint32_t *amp, const int16_t *i, const int16_t *q, size_t n)
{
    imx_amp_plain(amp, i, q, n);
}
void Unwrap(uint16_t *dist, uint32_t *amp, const uint16_t *d_hi, const uint32_t *a_hi, const uint16_t *d_lo,
            const uint32_t *a_lo, size_t n, int32_t dmax_hi)
{
    imx_unwrap_plain(dist, amp, d_hi, a_hi, d_lo, a_lo, n, dmax_hi);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

using DI = hn::ScalableTag<int32_t>;
using DU = hn::RebindToUnsigned<DI>;
using DF = hn::RebindToFloat<DI>;
using D16 = hn::Rebind<uint16_t, DI>;
using VI = hn::Vec<DI>;
using VU = hn::Vec<DU>;
using VF = hn::Vec<DF>;

// Eight values from twelve bytes: each word takes the two bytes that its value lies in, at their lower or
// their upper end by turns.
void Unpack(int16_t *out, const uint8_t *packed, size_t n)
{
    const hn::FixedTag<uint8_t, 16> d8;
    const hn::FixedTag<int16_t, 8> d16;
    HWY_ALIGN static constexpr uint8_t PLACES[16] = {0, 1, 1, 2, 3, 4, 4, 5, 6, 7, 7, 8, 9, 10, 10, 11};
    const auto places = hn::Load(d8, PLACES);
    size_t k = 0;
    for (; k + 16 <= n; k += 8, packed += 12) { // sixteen bytes are read
        const auto words = hn::BitCast(d16, hn::TableLookupBytes(hn::LoadU(d8, packed), places));
        const auto lower = hn::ShiftRight<4>(hn::ShiftLeft<4>(words)), upper = hn::ShiftRight<4>(words);
        hn::StoreU(hn::OddEven(upper, lower), d16, out + k);
    }
    imx_unpack_plain(out + k, packed, n - k);
}

using DS = hn::ScalableTag<int16_t>;
using DH = hn::RebindToUnsigned<DS>;
using VH = hn::Vec<DH>; // twice as many pixels as in the others

HWY_INLINE void StoreAmps(uint32_t *amp, hn::Vec<DS> i, hn::Vec<DS> q)
{
    const auto amps = SquaredAmps(DS(), i, q);
    hn::StoreU(amps.lower, DU(), amp);
    hn::StoreU(amps.upper, DU(), amp + hn::Lanes(DU()));
}

void Amp(uint32_t *amp, const int16_t *i, const int16_t *q, size_t n)
{
    const DS ds;
    const size_t lanes = hn::Lanes(ds);
    size_t x = 0;
    for (; x + lanes <= n; x += lanes)
        StoreAmps(amp + x, hn::LoadU(ds, i + x), hn::LoadU(ds, q + x));
    imx_amp_plain(amp + x, i + x, q + x, n - x);
}

// Of the mapped phase only 15 bits stay, so that 32 of each product do. Where a phase below 0 is scaled the
// division goes toward 0.
HWY_INLINE VI Scale(VI ph, int32_t sys_k)
{
    const DI di;
    const VI up = hn::IfThenElseZero(hn::Lt(ph, hn::Zero(di)), hn::Set(di, PHASE_TURN - 1));
    return hn::ShiftRight<15>(hn::Add(hn::Mul(ph, hn::Set(di, sys_k)), up));
}

// Distance of phases whose upper bits don't count.
HWY_INLINE VH ToMm(VH ph, const imx_map_t &map)
{
    const DH dh;
    ph = hn::Add(ph, hn::Set(dh, static_cast<uint16_t>(map.sys_o)));
    return hn::MulHigh(hn::Add(ph, ph), hn::Set(dh, static_cast<uint16_t>(map.dm)));
}

// Half away from 0. Clamped where it doesn't fit; what isn't a number is 0.
HWY_INLINE VI RoundAway(VF v)
{
    const DI di;
    const DF df;
    v = hn::IfThenElseZero(hn::Eq(v, v), v);
    const VI whole = hn::ConvertTo(di, v);
    const VF part = hn::Sub(v, hn::ConvertTo(df, whole));
    const auto has_part = hn::Lt(hn::Abs(v), hn::Set(df, 8388608.0f));
    const auto away = hn::And(has_part, hn::Ge(hn::Abs(part), hn::Set(df, 0.5f)));
    const VI one = hn::IfThenElse(hn::Lt(hn::BitCast(di, v), hn::Zero(di)), hn::Set(di, -1), hn::Set(di, 1));
    return hn::Add(whole, hn::IfThenElseZero(hn::RebindMask(di, away), one));
}

// periodic_correct; the index into the sine's table is an f64 product.
HWY_INLINE VF Wave(VF d, const periodic_t &p)
{
    const DI di;
    const DF df;
    const hn::Repartition<double, DF> d64;
    const hn::Half<DI> half;
    static_assert((SIN_LUT_NUM & (SIN_LUT_NUM - 1)) == 0);
    const VF t = hn::Add(hn::Mul(d, hn::Set(df, p.omega)), hn::Set(df, p.pha)), size = hn::Abs(t);
    if (!hn::AllTrue(df, hn::Lt(size, hn::Set(df, 1e5f)))) { // the index could leave 32 bits
        HWY_ALIGN float mm[HWY_MAX_BYTES / sizeof(float)];
        hn::Store(d, df, mm);
        for (size_t k = 0; k < hn::Lanes(df); k++)
            mm[k] = periodic_correct(mm[k], p);
        return hn::Load(df, mm);
    }
    const auto steps = hn::Set(d64, PERIODIC_STEPS), round = hn::Set(d64, 0.5);
    const auto lower = hn::PromoteTo(d64, hn::LowerHalf(size)),
               upper = hn::PromoteTo(d64, hn::UpperHalf(hn::Half<DF>(), size));
    const VI index = hn::Combine(di, hn::DemoteTo(half, hn::Add(hn::Mul(upper, steps), round)),
                                 hn::DemoteTo(half, hn::Add(hn::Mul(lower, steps), round)));
    const VF sine = hn::GatherIndex(df, g_sin_LUT.data(), hn::And(index, hn::Set(di, SIN_LUT_NUM - 1)));
    const VF turned = hn::IfThenElse(hn::Lt(t, hn::Zero(df)), hn::Neg(sine), sine);
    return hn::Add(hn::Add(d, hn::Mul(turned, hn::Set(df, p.amp))), hn::Set(df, p.ofs));
}

HWY_INLINE VI Correct(VI ph, const imx_line_t &line, float to_mm, float to_phase, size_t x)
{
    const DI di;
    const DF df;
    const VF p = hn::Sub(hn::ConvertTo(df, hn::And(ph, hn::Set(di, PHASE_TURN - 1))), hn::Set(df, line.tc));
    VF d = hn::Mul(p, hn::Set(df, to_mm));
    if (line.slopes)
        d = hn::Add(hn::Mul(d, hn::LoadU(df, line.slopes + x)), hn::LoadU(df, line.offsets + x));
    else
        d = hn::Add(hn::Mul(d, hn::Set(df, line.slope)), hn::Set(df, line.offset));
    if (line.periodic.amp == 0) { // no wave
        d = hn::Add(d, hn::Set(df, line.periodic.ofs));
    } else {
        d = Wave(d, line.periodic);
    }
    return RoundAway(hn::Mul(d, hn::Set(df, to_phase)));
}

void Dist(uint16_t *dist, uint32_t *amp, const int16_t *i, const int16_t *q, size_t n, const imx_map_t &map,
          const imx_line_t &line)
{
    const DS ds;
    const DH dh;
    const DI di;
    const size_t lanes = hn::Lanes(dh), half = lanes / 2;
    const bool scaled = map.sys_k != PHASE_TURN, wide = scaled || line.on;
    const float dm = static_cast<float>(map.dm), to_mm = dm / 32768.0f, to_phase = 32768.0f / dm;
    HWY_ALIGN uint16_t phase[HWY_MAX_BYTES / sizeof(uint16_t)];
    size_t x = 0;
    for (; x + lanes <= n; x += lanes) {
        const auto vi = hn::LoadU(ds, i + x), vq = hn::LoadU(ds, q + x);
        VH ph = hn::Add(hn::BitCast(dh, PhaseAngles(ds, vi, vq)), hn::Set(dh, PHASE_HALF));
        if (wide) {
            hn::Store(ph, dh, phase);
            for (size_t k = 0; k < lanes; k += half) {
                VI v = hn::PromoteTo(di, hn::Load(D16(), phase + k));
                if (line.on)
                    v = Correct(v, line, to_mm, to_phase, x + k);
                if (scaled)
                    v = Scale(v, map.sys_k);
                v = hn::And(v, hn::Set(di, 0xFFFF));
                hn::Store(hn::TruncateTo(D16(), hn::BitCast(DU(), v)), D16(), phase + k);
            }
            ph = hn::Load(dh, phase);
        }
        hn::StoreU(ToMm(ph, map), dh, dist + x);
        StoreAmps(amp + x, vi, vq);
    }
    imx_line_t rest = line;
    if (line.slopes) {
        rest.slopes += x;
        rest.offsets += x;
    }
    imx_dist_plain(dist + x, amp + x, i + x, q + x, n - x, map, rest);
}

void Unwrap(uint16_t *dist, uint32_t *amp, const uint16_t *d_hi, const uint32_t *a_hi, const uint16_t *d_lo,
            const uint32_t *a_lo, size_t n, int32_t dmax_hi)
{
    const DI di;
    const DU du;
    const size_t lanes = hn::Lanes(di);
    const VI half = hn::Set(di, dmax_hi / 2), period = hn::Set(di, dmax_hi);
    size_t x = 0;
    for (; x + lanes <= n; x += lanes) {
        const VI lo = hn::PromoteTo(di, hn::LoadU(D16(), d_lo + x));
        VI hi = hn::PromoteTo(di, hn::LoadU(D16(), d_hi + x));
        for (int k = 0; k < 2; k++)
            hi = hn::Add(hi, hn::IfThenElseZero(hn::Gt(lo, hn::Add(hi, half)), period));
        const VU a = hn::LoadU(du, a_hi + x);
        const auto strong = hn::Gt(hn::BitCast(di, a), hn::Set(di, IMX_WEAK)); // below 2^30
        const auto fine = hn::And(strong, hn::Not(hn::Gt(lo, hn::Add(hi, half))));
        const VU mm = hn::BitCast(du, hn::IfThenElse(fine, hi, lo));
        hn::StoreU(hn::TruncateTo(D16(), mm), D16(), dist + x);
        hn::StoreU(hn::IfThenElse(hn::RebindMask(du, fine), a, hn::LoadU(du, a_lo + x)), du, amp + x);
    }
    imx_unwrap_plain(dist + x, amp + x, d_hi + x, a_hi + x, d_lo + x, a_lo + x, n - x, dmax_hi);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace {
HWY_EXPORT(Unpack);
HWY_EXPORT(Dist);
HWY_EXPORT(Amp);
HWY_EXPORT(Unwrap);
} // namespace

void imx_unpack(int16_t *out, const uint8_t *packed, size_t n)
{
    simd_enabled() ? HWY_DYNAMIC_DISPATCH(Unpack)(out, packed, n) : imx_unpack_plain(out, packed, n);
}

void imx_dist(uint16_t *dist, uint32_t *amp, const int16_t *i, const int16_t *q, size_t n,
              const imx_map_t &map, const imx_line_t &line)
{
    if (simd_enabled() && map.dm < 65536 && map.sys_k >= 0)
        HWY_DYNAMIC_DISPATCH(Dist)(dist, amp, i, q, n, map, line);
    else
        imx_dist_plain(dist, amp, i, q, n, map, line);
}

void imx_amp(uint32_t *amp, const int16_t *i, const int16_t *q, size_t n)
{
    simd_enabled() ? HWY_DYNAMIC_DISPATCH(Amp)(amp, i, q, n) : imx_amp_plain(amp, i, q, n);
}

void imx_unwrap(uint16_t *dist, uint32_t *amp, const uint16_t *d_hi, const uint32_t *a_hi,
                const uint16_t *d_lo, const uint32_t *a_lo, size_t n, int32_t dmax_hi)
{
    simd_enabled() ? HWY_DYNAMIC_DISPATCH(Unwrap)(dist, amp, d_hi, a_hi, d_lo, a_lo, n, dmax_hi)
                   : imx_unwrap_plain(dist, amp, d_hi, a_hi, d_lo, a_lo, n, dmax_hi);
}
#endif
