// Gray from raw rows on vectors.
#include "drivers/epc/epc_kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "drivers/epc/epc_gray_simd.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "drivers/common/phase_simd-inl.h"
#include "simd/dispatch.h"
#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

#if TQ_PLAIN_TARGET

void GrayDiff(uint16_t *gray, const uint16_t *const p[4], size_t n)
{
    epc_gray_diff_row_plain(gray, p, n);
}
void GrayLevel(uint16_t *gray, const uint16_t *p0, const uint16_t *p1, size_t n)
{
    epc_gray_level_row_plain(gray, p0, p1, n);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

using DS = hn::ScalableTag<int16_t>;
using VS = hn::Vec<DS>;

HWY_INLINE VS LoadSamples(const uint16_t *p)
{
    const hn::RebindToUnsigned<DS> dh;
    return hn::BitCast(DS(), hn::And(hn::LoadU(dh, p), hn::Set(dh, uint16_t{4095})));
}

// Where the smallest and the largest sample of a pixel are valid; without light the root is 0.
HWY_INLINE void StoreGray(uint16_t *gray, VS least, VS most, VS i, VS q)
{
    const DS ds;
    const auto valid = hn::And(hn::Gt(least, hn::Set(ds, 1)), hn::Lt(most, hn::Set(ds, 4094)));
    const auto amps = SquaredAmps(ds, hn::IfThenElseZero(valid, i), hn::IfThenElseZero(valid, q));
    const VS roots = PackInOrder(ds, FastSqrt(amps.lower), FastSqrt(amps.upper));
    const hn::RebindToUnsigned<DS> dh;
    hn::StoreU(hn::BitCast(dh, roots), dh, gray);
}

void GrayDiff(uint16_t *gray, const uint16_t *const p[4], size_t n)
{
    const size_t lanes = hn::Lanes(DS());
    size_t x = 0;
    for (; x + lanes <= n; x += lanes) {
        const VS p0 = LoadSamples(p[0] + x), p1 = LoadSamples(p[1] + x);
        const VS p2 = LoadSamples(p[2] + x), p3 = LoadSamples(p[3] + x);
        StoreGray(gray + x, hn::Min(hn::Min(p0, p1), hn::Min(p2, p3)),
                  hn::Max(hn::Max(p0, p1), hn::Max(p2, p3)), hn::Sub(p2, p0), hn::Sub(p3, p1));
    }
    const uint16_t *const rest[4] = {p[0] + x, p[1] + x, p[2] + x, p[3] + x};
    epc_gray_diff_row_plain(gray + x, rest, n - x);
}

void GrayLevel(uint16_t *gray, const uint16_t *p0, const uint16_t *p1, size_t n)
{
    const size_t lanes = hn::Lanes(DS());
    const VS middle = hn::Set(DS(), 2048);
    size_t x = 0;
    for (; x + lanes <= n; x += lanes) {
        const VS a = LoadSamples(p0 + x), b = LoadSamples(p1 + x);
        StoreGray(gray + x, hn::Min(a, b), hn::Max(a, b), hn::Sub(middle, a), hn::Sub(middle, b));
    }
    epc_gray_level_row_plain(gray + x, p0 + x, p1 + x, n - x);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace {
HWY_EXPORT(GrayDiff);
HWY_EXPORT(GrayLevel);
} // namespace

void epc_gray_diff_row(uint16_t *gray, const uint16_t *const p[4], size_t n)
{
    simd_enabled() ? HWY_DYNAMIC_DISPATCH(GrayDiff)(gray, p, n) : epc_gray_diff_row_plain(gray, p, n);
}

void epc_gray_level_row(uint16_t *gray, const uint16_t *p0, const uint16_t *p1, size_t n)
{
    simd_enabled() ? HWY_DYNAMIC_DISPATCH(GrayLevel)(gray, p0, p1, n)
                   : epc_gray_level_row_plain(gray, p0, p1, n);
}
#endif
