// The merge of two integration times on vectors.
#include "drivers/epc/epc_kernels.h"

#include <algorithm>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "drivers/epc/epc_hdr_simd.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "simd/dispatch.h"
#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

#if TQ_PLAIN_TARGET

void Merge(uint16_t *dist, uint32_t *amp, uint32_t w, uint32_t h)
{
    epc_hdr_merge_plain(dist, amp, w, h);
}
void MergeGray(uint16_t *gray, uint32_t w, uint32_t h)
{
    epc_hdr_merge_gray_plain(gray, w, h);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

// n pixels and their seconds, which stand that far behind them.
void MergePairs(uint16_t *d, uint32_t *a, size_t n)
{
    const hn::ScalableTag<uint32_t> du;
    const hn::Rebind<uint16_t, decltype(du)> d16;
    const size_t lanes = hn::Lanes(du);
    const auto saturated = hn::Set(du, EPC_SATURATED);
    size_t x = 0;
    for (; x + lanes <= n; x += lanes) {
        const auto first = hn::LoadU(du, a + x), second = hn::LoadU(du, a + n + x);
        const auto better =
            hn::Or(hn::Eq(hn::Min(first, second), first), hn::Eq(hn::Max(first, saturated), first));
        const auto usable = hn::Or(hn::Eq(hn::Min(second, saturated), second), hn::Eq(first, hn::Zero(du)));
        const auto take = hn::And(better, usable);
        const auto best = hn::IfThenElse(take, second, first);
        hn::StoreU(best, du, a + x);
        hn::StoreU(best, du, a + n + x);
        const auto mm = hn::IfThenElse(take, hn::PromoteTo(du, hn::LoadU(d16, d + n + x)),
                                       hn::PromoteTo(du, hn::LoadU(d16, d + x)));
        hn::StoreU(hn::TruncateTo(d16, mm), d16, d + x);
        hn::StoreU(hn::TruncateTo(d16, mm), d16, d + n + x);
    }
    for (; x < n; x++) {
        const size_t from = epc_take_second(a[x], a[n + x]) ? n + x : x;
        a[x] = a[n + x] = a[from];
        d[x] = d[n + x] = d[from];
    }
}

void Merge(uint16_t *dist, uint32_t *amp, uint32_t w, uint32_t h)
{
    for (uint32_t r = 0; r + 4 <= h; r += 4)
        MergePairs(dist + size_t{r} * w, amp + size_t{r} * w, size_t{2} * w);
}

void MergeGray(uint16_t *gray, uint32_t w, uint32_t h)
{
    const hn::ScalableTag<uint16_t> dh;
    const size_t lanes = hn::Lanes(dh), n = size_t{2} * w;
    for (uint32_t r = 0; r + 4 <= h; r += 4) {
        uint16_t *const g = gray + size_t{r} * w;
        size_t x = 0;
        for (; x + lanes <= n; x += lanes) {
            const auto best = hn::Max(hn::LoadU(dh, g + x), hn::LoadU(dh, g + n + x));
            hn::StoreU(best, dh, g + x);
            hn::StoreU(best, dh, g + n + x);
        }
        for (; x < n; x++)
            g[x] = g[n + x] = std::max(g[x], g[n + x]);
    }
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace {
HWY_EXPORT(Merge);
HWY_EXPORT(MergeGray);
} // namespace

void epc_hdr_merge(uint16_t *dist, uint32_t *amp, uint32_t w, uint32_t h)
{
    simd_enabled() ? HWY_DYNAMIC_DISPATCH(Merge)(dist, amp, w, h) : epc_hdr_merge_plain(dist, amp, w, h);
}

void epc_hdr_merge_gray(uint16_t *gray, uint32_t w, uint32_t h)
{
    simd_enabled() ? HWY_DYNAMIC_DISPATCH(MergeGray)(gray, w, h) : epc_hdr_merge_gray_plain(gray, w, h);
}
#endif
