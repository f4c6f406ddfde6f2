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
using DI = hn::RebindToSigned<DU>;
using D16 = hn::Rebind<uint16_t, DU>;
using DS = hn::RepartitionToNarrow<DI>;
using DH = hn::RebindToUnsigned<DS>;
using D8 = hn::Rebind<uint8_t, DS>;
using VU = hn::Vec<DU>;
using VS = hn::Vec<DS>; // twice as many pixels as in a VU

// All bits of the pixels that test(amplitudes) tells.
template <class Test> HWY_INLINE VS Tell(const uint32_t *amp, Test test)
{
    const DU d;
    const auto lower = hn::VecFromMask(d, test(hn::LoadU(d, amp)));
    const auto upper = hn::VecFromMask(d, test(hn::LoadU(d, amp + hn::Lanes(d))));
    return PackInOrder(DS(), hn::BitCast(DI(), lower), hn::BitCast(DI(), upper));
}

// From lo to hi, which isn't below it.
struct Band {
    VU lo, range;
    Band(uint32_t from, uint32_t to) : lo(hn::Set(DU(), from)), range(hn::Set(DU(), to - from)) {}
};

HWY_INLINE VS TellWithin(const uint32_t *amp, const Band &band)
{
    return Tell(amp, [lo = band.lo, range = band.range](VU a) HWY_ATTR {
        const VU above = hn::Sub(a, lo);
        return hn::Eq(hn::Min(above, range), above);
    });
}

HWY_INLINE void KeepDist(uint16_t *dist, VS keep)
{
    const DH d;
    hn::StoreU(hn::And(hn::LoadU(d, dist), hn::BitCast(d, keep)), d, dist);
}

void MinAmp(uint16_t *dist, const uint32_t *amp, size_t n, const min_amp_t &limits)
{
    const size_t lanes = hn::Lanes(DS());
    const Band good(limits.lo, limits.hi);
    size_t i = 0;
    for (; i + lanes <= n; i += lanes)
        KeepDist(dist + i, TellWithin(amp + i, good));
    min_amp_plain(dist + i, amp + i, n - i, limits);
}

void MinAmpHyst(uint16_t *dist, uint8_t *state, const uint32_t *amp, size_t n, const min_amp_t &limits)
{
    const DS ds;
    const size_t lanes = hn::Lanes(ds);
    const Band good(limits.lo, limits.hi), held(limits.lo_drop, limits.hi_drop);
    const VS one = hn::Set(ds, 1), zero = hn::Zero(ds);
    size_t i = 0;
    for (; i + lanes <= n; i += lanes) {
        const VS in_good = TellWithin(amp + i, good), in_held = TellWithin(amp + i, held);
        const VS before = hn::PromoteTo(ds, hn::LoadU(D8(), state + i));
        const VS now = hn::IfVecThenElse(in_good, one, hn::And(in_held, before));
        hn::StoreU(hn::TruncateTo(D8(), hn::BitCast(DH(), now)), D8(), state + i);
        KeepDist(dist + i, hn::VecFromMask(ds, hn::Ne(now, zero)));
    }
    min_amp_hyst_plain(dist + i, state + i, amp + i, n - i, limits);
}

void ZeroAmp(uint16_t *dist, const uint32_t *amp, size_t n)
{
    const size_t lanes = hn::Lanes(DS());
    const VU zero = hn::Zero(DU());
    size_t i = 0;
    for (; i + lanes <= n; i += lanes)
        KeepDist(dist + i, Tell(amp + i, [zero](VU a) HWY_ATTR { return hn::Ne(a, zero); }));
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

// A least amplitude above the middle leaves no pixel, and no band that vectors could take.
void min_amp(uint16_t *dist, const uint32_t *amp, size_t n, const min_amp_t &limits)
{
    if (simd_enabled() && limits.lo <= limits.hi)
        HWY_DYNAMIC_DISPATCH(MinAmp)(dist, amp, n, limits);
    else
        min_amp_plain(dist, amp, n, limits);
}

void min_amp_hyst(uint16_t *dist, uint8_t *state, const uint32_t *amp, size_t n, const min_amp_t &limits)
{
    // Below lo_drop or above hi_drop a pixel is bad; the vector form takes the two as one band.
    const bool band = limits.lo_drop <= limits.lo && limits.lo <= limits.hi && limits.hi_drop >= limits.hi;
    if (simd_enabled() && band)
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
