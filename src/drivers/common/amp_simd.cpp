// What squared amplitudes decide, on vectors.
#include "drivers/common/amp_kernels.h"

#include <algorithm>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "drivers/common/amp_simd.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "drivers/common/phase_simd-inl.h"
#include "simd/dispatch.h"
#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

#if TQ_PLAIN_TARGET

void MinAmp(uint16_t *dist, const uint32_t *amp, size_t n, const min_amp_t &limits)
{
    min_amp_plain(dist, amp, n, limits);
}
void MinAmpHyst(uint16_t *dist, uint8_t *state, const uint32_t *amp, size_t n, const min_amp_t &limits)
{
    min_amp_hyst_plain(dist, state, amp, n, limits);
}
void ZeroAmp(uint16_t *dist, const uint32_t *amp, size_t n)
{
    zero_amp_plain(dist, amp, n);
}
void AmpToGray(uint16_t *gray, const uint32_t *amp, size_t n)
{
    amp_to_gray_plain(gray, amp, n);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

using DU = hn::ScalableTag<uint32_t>;
using D16 = hn::Rebind<uint16_t, DU>;
using D8 = hn::Rebind<uint8_t, DU>;
using VU = hn::Vec<DU>;

HWY_INLINE void KeepDist(uint16_t *dist, hn::Mask<DU> keep)
{
    const VU d = hn::PromoteTo(DU(), hn::LoadU(D16(), dist));
    hn::StoreU(hn::TruncateTo(D16(), hn::IfThenElseZero(keep, d)), D16(), dist);
}

HWY_INLINE hn::Mask<DU> Within(VU amp, VU lo, VU hi)
{
    return hn::Eq(hn::Min(hn::Max(amp, lo), hi), amp);
}

void MinAmp(uint16_t *dist, const uint32_t *amp, size_t n, const min_amp_t &limits)
{
    const DU d;
    const size_t lanes = hn::Lanes(d);
    const VU lo = hn::Set(d, limits.lo), hi = hn::Set(d, limits.hi);
    size_t i = 0;
    for (; i + lanes <= n; i += lanes)
        KeepDist(dist + i, Within(hn::LoadU(d, amp + i), lo, hi));
    min_amp_plain(dist + i, amp + i, n - i, limits);
}

void MinAmpHyst(uint16_t *dist, uint8_t *state, const uint32_t *amp, size_t n, const min_amp_t &limits)
{
    const DU d;
    const size_t lanes = hn::Lanes(d);
    const VU lo = hn::Set(d, limits.lo), hi = hn::Set(d, limits.hi);
    const VU lo_drop = hn::Set(d, limits.lo_drop), hi_drop = hn::Set(d, limits.hi_drop);
    size_t i = 0;
    for (; i + lanes <= n; i += lanes) {
        const VU a = hn::LoadU(d, amp + i);
        const VU before = hn::PromoteTo(d, hn::LoadU(D8(), state + i));
        const VU held = hn::IfThenElseZero(Within(a, lo_drop, hi_drop), before);
        const VU now = hn::IfThenElse(Within(a, lo, hi), hn::Set(d, 1), held);
        hn::StoreU(hn::TruncateTo(D8(), now), D8(), state + i);
        KeepDist(dist + i, hn::Ne(now, hn::Zero(d)));
    }
    min_amp_hyst_plain(dist + i, state + i, amp + i, n - i, limits);
}

void ZeroAmp(uint16_t *dist, const uint32_t *amp, size_t n)
{
    const DU d;
    const size_t lanes = hn::Lanes(d);
    size_t i = 0;
    for (; i + lanes <= n; i += lanes)
        KeepDist(dist + i, hn::Ne(hn::LoadU(d, amp + i), hn::Zero(d)));
    zero_amp_plain(dist + i, amp + i, n - i);
}

void AmpToGray(uint16_t *gray, const uint32_t *amp, size_t n)
{
    const DU d;
    const size_t lanes = hn::Lanes(d);
    size_t i = 0;
    for (; i + lanes <= n; i += lanes) {
        const VU root = hn::BitCast(d, FastSqrt(hn::LoadU(d, amp + i)));
        hn::StoreU(hn::TruncateTo(D16(), root), D16(), gray + i);
    }
    amp_to_gray_plain(gray + i, amp + i, n - i);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace {
HWY_EXPORT(MinAmp);
HWY_EXPORT(MinAmpHyst);
HWY_EXPORT(ZeroAmp);
HWY_EXPORT(AmpToGray);
} // namespace

void min_amp(uint16_t *dist, const uint32_t *amp, size_t n, const min_amp_t &limits)
{
    simd_enabled() ? HWY_DYNAMIC_DISPATCH(MinAmp)(dist, amp, n, limits) : min_amp_plain(dist, amp, n, limits);
}

void min_amp_hyst(uint16_t *dist, uint8_t *state, const uint32_t *amp, size_t n, const min_amp_t &limits)
{
    // Below lo_drop or above hi_drop a pixel is bad; the vector form takes the two as one band.
    if (simd_enabled() && limits.lo_drop <= limits.lo && limits.hi_drop >= limits.hi)
        HWY_DYNAMIC_DISPATCH(MinAmpHyst)(dist, state, amp, n, limits);
    else
        min_amp_hyst_plain(dist, state, amp, n, limits);
}

void zero_amp(uint16_t *dist, const uint32_t *amp, size_t n)
{
    simd_enabled() ? HWY_DYNAMIC_DISPATCH(ZeroAmp)(dist, amp, n) : zero_amp_plain(dist, amp, n);
}

void amp_to_gray(uint16_t *gray, const uint32_t *amp, size_t n)
{
    simd_enabled() ? HWY_DYNAMIC_DISPATCH(AmpToGray)(gray, amp, n) : amp_to_gray_plain(gray, amp, n);
}
#endif
