// The line fit of every pixel on vectors. Lanes are pixels: each sums its own samples in the order of the
// plain form, products in f32, sums in f64, so that every bit is the same.
#include "calib/drnu_fit.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "calib/drnu_fit_simd.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {
#if TQ_PLAIN_TARGET

void FitTile(const drnu_fit_t *fit, size_t first, int count, float *work, float *slope, float *offset,
             float *r2)
{
    drnu_fit_tile_plain(fit, first, count, work, slope, offset, r2);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

using DF = hn::ScalableTag<float>;
using DH = hn::Half<DF>; // half a vector of f32 makes a whole one of f64
using DD = hn::Repartition<double, DF>;
using DI = hn::RebindToSigned<hn::RebindToUnsigned<DF>>;
using DU = hn::Rebind<uint16_t, DF>;
using VF = hn::Vec<DF>;
using VD = hn::Vec<DD>;

// f64 for every lane of a VF.
struct sums_t {
    VD lo, hi;
};

HWY_INLINE sums_t Zero()
{
    return {hn::Zero(DD()), hn::Zero(DD())};
}

HWY_INLINE sums_t Same(double v)
{
    return {hn::Set(DD(), v), hn::Set(DD(), v)};
}

HWY_INLINE void Add(sums_t &s, VF v)
{
    s.lo = hn::Add(s.lo, hn::PromoteTo(DD(), hn::LowerHalf(DH(), v)));
    s.hi = hn::Add(s.hi, hn::PromoteTo(DD(), hn::UpperHalf(DH(), v)));
}

template <typename F> HWY_INLINE sums_t Each(F f, sums_t a, sums_t b)
{
    return {f(a.lo, b.lo), f(a.hi, b.hi)};
}
HWY_INLINE sums_t operator*(sums_t a, sums_t b)
{
    return Each([](VD x, VD y) { return hn::Mul(x, y); }, a, b);
}
HWY_INLINE sums_t operator-(sums_t a, sums_t b)
{
    return Each([](VD x, VD y) { return hn::Sub(x, y); }, a, b);
}
HWY_INLINE sums_t operator/(sums_t a, sums_t b)
{
    return Each([](VD x, VD y) { return hn::Div(x, y); }, a, b);
}

HWY_INLINE VF ToF32(sums_t s)
{
    return hn::Combine(DF(), hn::DemoteTo(DH(), s.hi), hn::DemoteTo(DH(), s.lo));
}

// Unwraps all samples of the tile and turns them into mm, image after image, each read in one run. prev holds
// the raised predecessors.
HWY_INLINE void Convert(const drnu_fit_t *fit, size_t first, int count, float *HWY_RESTRICT x)
{
    const DF df;
    const VF turn = hn::Set(df, 65536.0f), to_turn = hn::Set(df, 1.0f / 32768),
             range = hn::Set(df, fit->range);
    HWY_ALIGN float prev[DRNU_TILE];
    for (int k = 0; k < fit->n; k++) {
        const auto *src =
            reinterpret_cast<const uint16_t *>(fit->images + fit->stride * static_cast<size_t>(k)) + first;
        float *dst = x + static_cast<size_t>(k) * DRNU_TILE;
        const bool unwrap = k > 0 && k != fit->unwrap_skip;
        for (int i = 0; i < count; i += static_cast<int>(hn::Lanes(df))) {
            VF v = hn::ConvertTo(df, hn::PromoteTo(DI(), hn::LoadU(DU(), src + i)));
            if (unwrap)
                v = hn::IfThenElse(hn::Lt(v, hn::Load(df, prev + i)), hn::Add(v, turn), v);
            hn::Store(v, df, prev + i);
            hn::StoreU(hn::Mul(hn::Mul(v, to_turn), range), df, dst + i);
        }
    }
}

// True distances: one for an image, or one for each pixel of it.
template <bool kPerPixel> HWY_INLINE VF LoadY(const drnu_fit_t *fit, int k, int i)
{
    return kPerPixel ? hn::LoadU(DF(), fit->y + static_cast<size_t>(k) * DRNU_TILE + i)
                     : hn::Set(DF(), fit->y[k]);
}

template <bool kPerPixel>
HWY_INLINE void FitLanes(const drnu_fit_t *fit, const float *x, int i, float *slope, float *offset, float *r2)
{
    const DF df;
    sums_t sx = Zero(), sy = Zero(), sxx = Zero(), sxy = Zero();
    for (int k = 0; k < fit->n; k++) {
        const VF xk = hn::LoadU(df, x + static_cast<size_t>(k) * DRNU_TILE + i),
                 yk = LoadY<kPerPixel>(fit, k, i);
        Add(sx, xk);
        Add(sy, yk);
        Add(sxx, hn::Mul(xk, xk));
        Add(sxy, hn::Mul(xk, yk));
    }
    const sums_t n = Same(fit->n);
    const sums_t det = n * sxx - sx * sx;
    const VF s = ToF32((n * sxy - sx * sy) / det), o = ToF32((sxx * sy - sxy * sx) / det);
    const sums_t mean = sy / n;
    sums_t tot = Zero(), res = Zero();
    for (int k = 0; k < fit->n; k++) {
        const VF xk = hn::LoadU(df, x + static_cast<size_t>(k) * DRNU_TILE + i),
                 yk = LoadY<kPerPixel>(fit, k, i);
        const sums_t dev = sums_t{hn::PromoteTo(DD(), hn::LowerHalf(DH(), yk)),
                                  hn::PromoteTo(DD(), hn::UpperHalf(DH(), yk))} -
                           mean;
        const VF err = hn::Sub(yk, hn::Add(hn::Mul(s, xk), o));
        tot = Each([](VD a, VD b) { return hn::Add(a, b); }, tot, dev * dev);
        Add(res, hn::Mul(err, err));
    }
    hn::StoreU(s, df, slope + i);
    hn::StoreU(o, df, offset + i);
    hn::StoreU(ToF32(Same(1) - res / tot), df, r2 + i);
}

void FitTile(const drnu_fit_t *fit, size_t first, int count, float *work, float *slope, float *offset,
             float *r2)
{
    const int lanes = static_cast<int>(hn::Lanes(DF())), whole = count / lanes * lanes;
    Convert(fit, first, whole, work);
    for (int i = 0; i < whole; i += lanes) {
        if (fit->y_per_pixel)
            FitLanes<true>(fit, work, i, slope, offset, r2);
        else
            FitLanes<false>(fit, work, i, slope, offset, r2);
    }
    if (whole == count)
        return;
    drnu_fit_t rest = *fit;
    if (rest.y_per_pixel)
        rest.y += whole;
    drnu_fit_tile_plain(&rest, first + static_cast<size_t>(whole), count - whole, work, slope + whole,
                        offset + whole, r2 + whole);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(FitTile);

void drnu_fit_tile_simd(const drnu_fit_t *fit, size_t first, int count, float *work, float *slope,
                        float *offset, float *r2)
{
    HWY_DYNAMIC_DISPATCH(FitTile)(fit, first, count, work, slope, offset, r2);
}
#endif
