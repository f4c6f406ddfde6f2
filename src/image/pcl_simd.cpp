// Point clouds on vectors: the plain form's operations in its order, as many columns at once as a vector
// holds.
#include "image/pcl_kernels.h"

#include <cstddef>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/pcl_simd.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {
#if TQ_PLAIN_TARGET

void CloudF32(const pcl_args_t &a, const float *dist)
{
    pcl_f32_plain(a, dist);
}

void CloudU16(const pcl_args_t &a, const uint16_t *dist)
{
    pcl_u16_plain(a, dist);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

constexpr int MAX_WIDTH = 1 << 24; // up to here a column is exact as f32

template <class D> HWY_INLINE hn::Vec<D> Metres(D d, const float *dist)
{
    return hn::LoadU(d, dist);
}

template <class D> HWY_INLINE hn::Vec<D> Metres(D d, const uint16_t *dist)
{
    const hn::Rebind<uint16_t, D> from;
    const hn::Rebind<int32_t, D> wide;
    const auto mm = hn::ConvertTo(d, hn::PromoteTo(wide, hn::LoadU(from, dist)));
    return hn::Div(mm, hn::Set(d, 1000.0f));
}

// What is the same for all points of a row.
struct row_t {
    float cx, ifx, y; // y for a distance of 1
    bool d_is_z;
};

// As many points as d has lanes, from column c on; p counts pixels.
template <pcl_kind_t KIND, class D, class T>
HWY_INLINE void Points(D d, const pcl_args_t &a, const row_t &row, const T *dist, int c, size_t p)
{
    using V = hn::Vec<D>;
    const hn::Rebind<int32_t, D> di;
    const auto lane = hn::Add(hn::Iota(di, 0), hn::Set(di, c & 3));
    const auto k = hn::And(lane, hn::Set(di, 3)); // within a group of four
    const V first = hn::ConvertTo(d, hn::Sub(lane, k));
    const V c0 = hn::Add(hn::Set(d, (float)(c & ~3)), first);
    const V col = hn::Add(hn::Sub(c0, hn::Set(d, row.cx)), hn::ConvertTo(d, k));

    V dd = Metres(d, dist + p);
    dd = hn::IfThenElseZero(hn::Lt(dd, hn::Set(d, 60.0f)), dd);
    const V add = a.tbl ? hn::LoadU(d, a.tbl + p) : hn::Zero(d);
    const V x = hn::Mul(hn::Mul(col, dd), hn::Set(d, row.ifx));
    const V y = hn::Mul(dd, hn::Set(d, row.y));
    V z = dd;
    if (!row.d_is_z)
        z = hn::Sqrt(hn::Sub(hn::Sub(hn::Mul(dd, dd), hn::Mul(x, x)), hn::Mul(y, y)));
    z = hn::Add(z, hn::Mul(dd, add));

    if (KIND == PCL_Z)
        hn::StoreU(z, d, a.pcl + p);
    else if (KIND == PCL_XYZ)
        hn::StoreInterleaved3(x, y, z, d, a.pcl + 3 * p);
    else
        hn::StoreInterleaved4(x, y, z, hn::LoadU(d, (const float *)a.extra + p), d, a.pcl + 4 * p);
}

template <pcl_kind_t KIND, class T> HWY_INLINE void Cloud(const pcl_args_t &a, const T *dist)
{
    const hn::ScalableTag<float> d;
    const hn::CappedTag<float, 4> four;
    const int N = (int)hn::Lanes(d), FOUR = (int)hn::Lanes(four);
    const int end = a.w & ~3; // whole groups of four
    const float ify = 1.0f / a.lens[3];
    row_t row = {a.lens[0], 1.0f / a.lens[2], 0, a.d_is_z};
    for (int r = 0; r < a.h; r++) {
        row.y = ((float)r - a.lens[1]) * ify;
        const size_t p = (size_t)a.w * r;
        int c = 0;
        for (; c + N <= end; c += N)
            Points<KIND>(d, a, row, dist, c, p + c);
        for (; c < end; c += FOUR)
            Points<KIND>(four, a, row, dist, c, p + c);
    }
}

template <class T> HWY_INLINE void CloudOfKind(const pcl_args_t &a, const T *dist)
{
    switch (a.kind) {
    case PCL_XYZ:
        return Cloud<PCL_XYZ>(a, dist);
    case PCL_XYZD:
        return Cloud<PCL_XYZD>(a, dist);
    case PCL_Z:
        return Cloud<PCL_Z>(a, dist);
    }
}

void CloudF32(const pcl_args_t &a, const float *dist)
{
    if (a.w > MAX_WIDTH)
        return pcl_f32_plain(a, dist);
    CloudOfKind(a, dist);
}

void CloudU16(const pcl_args_t &a, const uint16_t *dist)
{
    if (a.w > MAX_WIDTH)
        return pcl_u16_plain(a, dist);
    CloudOfKind(a, dist);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(CloudF32);
HWY_EXPORT(CloudU16);

void pcl_f32_simd(const pcl_args_t &a, const float *dist)
{
    HWY_DYNAMIC_DISPATCH(CloudF32)(a, dist);
}

void pcl_u16_simd(const pcl_args_t &a, const uint16_t *dist)
{
    HWY_DYNAMIC_DISPATCH(CloudU16)(a, dist);
}
#endif
