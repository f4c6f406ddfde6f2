// Gather through a lens map. Gathers of the processor cost more than loads one by one; what vectors do is to
// tell the blocks in which every pixel has a source, most of an image, from those at its border.
#include "image/lens_map.h"

#include "tq_lens.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/lens_gather_simd.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {
#if TQ_PLAIN_TARGET

void UndistortF32(float *dst, const float *src, const uint32_t *map, int n, float fill)
{
    undistort_f32_plain(dst, src, map, n, fill);
}

void UndistortU16(uint16_t *dst, const uint16_t *src, const uint32_t *map, int n, uint16_t fill)
{
    undistort_u16_plain(dst, src, map, n, fill);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

// Loads in any case, which spares a branch that can't be foretold.
template <class T> HWY_INLINE T Pixel(const T *src, uint32_t at, T fill)
{
    const T v = src[at == TQ_CALIB_LEN_NO_SOURCE ? 0 : at];
    return at == TQ_CALIB_LEN_NO_SOURCE ? fill : v;
}

template <class T> HWY_INLINE void Undistort(T *dst, const T *src, const uint32_t *map, int n, T fill)
{
    const hn::CappedTag<uint32_t, 16> d;
    constexpr int BLOCK = 16;
    const int N = (int)hn::Lanes(d);
    const auto none = hn::Set(d, TQ_CALIB_LEN_NO_SOURCE);
    int i = 0;
    for (; i + BLOCK <= n; i += BLOCK) {
        const uint32_t *at = map + i;
        T *out = dst + i;
        auto top = hn::LoadU(d, at); // the greatest index of each lane
        for (int k = N; k < BLOCK; k += N)
            top = hn::Max(top, hn::LoadU(d, at + k));
        if (HWY_LIKELY(hn::AllFalse(d, hn::Eq(top, none)))) {
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC unroll 16
#endif
            for (int k = 0; k < BLOCK; k++)
                out[k] = src[at[k]];
        } else {
            for (int k = 0; k < BLOCK; k++)
                out[k] = Pixel(src, at[k], fill);
        }
    }
    for (; i < n; i++)
        dst[i] = Pixel(src, map[i], fill);
}

void UndistortF32(float *dst, const float *src, const uint32_t *map, int n, float fill)
{
    Undistort(dst, src, map, n, fill);
}

void UndistortU16(uint16_t *dst, const uint16_t *src, const uint32_t *map, int n, uint16_t fill)
{
    Undistort(dst, src, map, n, fill);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(UndistortF32);
HWY_EXPORT(UndistortU16);

void undistort_f32_simd(float *dst, const float *src, const uint32_t *map, int n, float fill)
{
    HWY_DYNAMIC_DISPATCH(UndistortF32)(dst, src, map, n, fill);
}

void undistort_u16_simd(uint16_t *dst, const uint16_t *src, const uint32_t *map, int n, uint16_t fill)
{
    HWY_DYNAMIC_DISPATCH(UndistortU16)(dst, src, map, n, fill);
}
#endif
