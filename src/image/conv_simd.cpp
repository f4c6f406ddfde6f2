// Element conversions on vectors. What is left over at the end goes through the plain forms; a last vector
// that overlaps the one before would read what a conversion in place has already overwritten.
#include "image/conv_kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/conv_simd.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {
#if TQ_PLAIN_TARGET

void U16ToU8(uint8_t *dst, const uint16_t *src, int n, int shift)
{
    conv_u16_u8_plain(dst, src, n, shift);
}

void U16ToF32(float *dst, const uint16_t *src, int n, float factor)
{
    conv_u16_f32_plain(dst, src, n, factor);
}

void U16ToU32(uint32_t *dst, const uint16_t *src, int n, uint16_t factor)
{
    conv_u16_u32_plain(dst, src, n, factor);
}

void F32ToU8(uint8_t *dst, const float *src, int n, float factor)
{
    conv_f32_u8_plain(dst, src, n, factor);
}

void F32ToU16(uint16_t *dst, const float *src, int n, float factor)
{
    conv_f32_u16_plain(dst, src, n, factor);
}

void F32ToU32(uint32_t *dst, const float *src, int n, float factor)
{
    conv_f32_u32_plain(dst, src, n, factor);
}

void U32ToF32(float *dst, const uint32_t *src, int n, float factor)
{
    conv_u32_f32_plain(dst, src, n, factor);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

using DF = hn::ScalableTag<float>;
using VF = hn::Vec<DF>;
using DU32 = hn::Rebind<uint32_t, DF>;
using DI32 = hn::Rebind<int32_t, DF>;
using DU16 = hn::Rebind<uint16_t, DF>;
using DU8 = hn::Rebind<uint8_t, DF>;

HWY_INLINE int Step()
{
    return (int)hn::Lanes(DF());
}

// Towards zero; the conversion holds what is out of range to its nearest end, NaN is 0.
HWY_INLINE hn::Vec<DU32> ToI32(VF v)
{
    return hn::BitCast(DU32(), hn::ConvertTo(DI32(), hn::IfThenElseZero(hn::Eq(v, v), v)));
}

HWY_INLINE hn::Vec<DU32> ToU32(VF v)
{
    const VF half = hn::Set(DF(), 2147483648.0f);
    const auto upper = hn::Ge(v, half);
    const auto low = ToI32(hn::IfThenElse(upper, hn::Sub(v, half), v));
    return hn::Xor(low, hn::IfThenElseZero(hn::RebindMask(DU32(), upper), hn::Set(DU32(), 0x80000000u)));
}

void U16ToU8(uint8_t *dst, const uint16_t *src, int n, int shift)
{
    const hn::ScalableTag<uint16_t> d;
    const hn::Rebind<uint8_t, decltype(d)> to;
    const int N = (int)hn::Lanes(d);
    int i = 0;
    for (; i + N <= n; i += N) {
        const auto v = hn::ShiftRightSame(hn::LoadU(d, src + i), shift);
        hn::StoreU(
            hn::DemoteTo(to, hn::BitCast(hn::RebindToSigned<decltype(d)>(), hn::And(v, hn::Set(d, 255)))), to,
            dst + i);
    }
    conv_u16_u8_plain(dst + i, src + i, n - i, shift);
}

void U16ToF32(float *dst, const uint16_t *src, int n, float factor)
{
    const int N = Step();
    const VF f = hn::Set(DF(), factor);
    int i = 0;
    for (; i + N <= n; i += N) {
        const auto v = hn::PromoteTo(DI32(), hn::LoadU(DU16(), src + i));
        hn::StoreU(hn::Mul(hn::ConvertTo(DF(), v), f), DF(), dst + i);
    }
    conv_u16_f32_plain(dst + i, src + i, n - i, factor);
}

void U16ToU32(uint32_t *dst, const uint16_t *src, int n, uint16_t factor)
{
    const int N = Step();
    const auto f = hn::Set(DU32(), (uint32_t)factor);
    int i = 0;
    for (; i + N <= n; i += N)
        hn::StoreU(hn::Mul(hn::PromoteTo(DU32(), hn::LoadU(DU16(), src + i)), f), DU32(), dst + i);
    conv_u16_u32_plain(dst + i, src + i, n - i, factor);
}

void F32ToU8(uint8_t *dst, const float *src, int n, float factor)
{
    const int N = Step();
    const VF f = hn::Set(DF(), factor);
    int i = 0;
    for (; i + N <= n; i += N)
        hn::StoreU(hn::TruncateTo(DU8(), ToI32(hn::Mul(hn::LoadU(DF(), src + i), f))), DU8(), dst + i);
    conv_f32_u8_plain(dst + i, src + i, n - i, factor);
}

void F32ToU16(uint16_t *dst, const float *src, int n, float factor)
{
    const int N = Step();
    const VF f = hn::Set(DF(), factor);
    int i = 0;
    for (; i + N <= n; i += N)
        hn::StoreU(hn::TruncateTo(DU16(), ToI32(hn::Mul(hn::LoadU(DF(), src + i), f))), DU16(), dst + i);
    conv_f32_u16_plain(dst + i, src + i, n - i, factor);
}

void F32ToU32(uint32_t *dst, const float *src, int n, float factor)
{
    const int N = Step();
    const VF f = hn::Set(DF(), factor);
    int i = 0;
    for (; i + N <= n; i += N)
        hn::StoreU(ToU32(hn::Mul(hn::LoadU(DF(), src + i), f)), DU32(), dst + i);
    conv_f32_u32_plain(dst + i, src + i, n - i, factor);
}

void U32ToF32(float *dst, const uint32_t *src, int n, float factor)
{
    const int N = Step();
    const VF f = hn::Set(DF(), factor); // times 1 changes no value
    int i = 0;
    for (; i + N <= n; i += N)
        hn::StoreU(hn::Mul(hn::ConvertTo(DF(), hn::LoadU(DU32(), src + i)), f), DF(), dst + i);
    conv_u32_f32_plain(dst + i, src + i, n - i, factor);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(U16ToU8);
HWY_EXPORT(U16ToF32);
HWY_EXPORT(U16ToU32);
HWY_EXPORT(F32ToU8);
HWY_EXPORT(F32ToU16);
HWY_EXPORT(F32ToU32);
HWY_EXPORT(U32ToF32);

void conv_u16_u8_simd(uint8_t *dst, const uint16_t *src, int n, int shift)
{
    HWY_DYNAMIC_DISPATCH(U16ToU8)(dst, src, n, shift);
}

void conv_u16_f32_simd(float *dst, const uint16_t *src, int n, float factor)
{
    HWY_DYNAMIC_DISPATCH(U16ToF32)(dst, src, n, factor);
}

void conv_u16_u32_simd(uint32_t *dst, const uint16_t *src, int n, uint16_t factor)
{
    HWY_DYNAMIC_DISPATCH(U16ToU32)(dst, src, n, factor);
}

void conv_f32_u8_simd(uint8_t *dst, const float *src, int n, float factor)
{
    HWY_DYNAMIC_DISPATCH(F32ToU8)(dst, src, n, factor);
}

void conv_f32_u16_simd(uint16_t *dst, const float *src, int n, float factor)
{
    HWY_DYNAMIC_DISPATCH(F32ToU16)(dst, src, n, factor);
}

void conv_f32_u32_simd(uint32_t *dst, const float *src, int n, float factor)
{
    HWY_DYNAMIC_DISPATCH(F32ToU32)(dst, src, n, factor);
}

void conv_u32_f32_simd(float *dst, const uint32_t *src, int n, float factor)
{
    HWY_DYNAMIC_DISPATCH(U32ToF32)(dst, src, n, factor);
}
#endif
