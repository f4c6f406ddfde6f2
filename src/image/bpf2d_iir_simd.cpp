#include "image/depth_kernels.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/bpf2d_iir_simd.cpp"
#include <hwy/cache_control.h>
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

#if TQ_PLAIN_TARGET

void Bpf2dIir(tq_bpf2d_iir_t *f, uint16_t *dst, const uint16_t *src)
{
    bpf2d_iir_plain(f, dst, src);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

// The row pass takes 16 rows at a time, transposed, so that each lane runs along a row of its own; the column
// pass takes 32 columns at a time. Between the passes the planes hold such blocks of columns one after the
// other, so that both passes run through memory in order.
constexpr int kRows = kBpf2dRows;
constexpr int kCols = kBpf2dCols;
constexpr int kLag =
    16; // columns between a lookup and its use: vector loads wait for what scalars stored last

using DF = hn::CappedTag<float, kRows>;
using DI = hn::Rebind<int32_t, DF>;
using DU = hn::Rebind<uint16_t, DF>;
using VF = hn::Vec<DF>;
constexpr int kN = (int)hn::MaxLanes(DF());
constexpr int kVecs = kRows / kN;

HWY_INLINE VF LoadFloat(const uint16_t *p)
{
    return hn::ConvertTo(DF(), hn::PromoteTo(DI(), hn::LoadU(DU(), p)));
}

// Places in the range table of n neighbours.
template <int n>
HWY_INLINE void Steps(const uint16_t *a, const uint16_t *b, uint16_t lo, uint16_t hi, uint16_t *idx)
{
    const hn::CappedTag<uint16_t, n> d;
    const auto vlo = hn::Set(d, lo), vhi = hn::Set(d, hi);
    for (int i = 0; i < n; i += (int)hn::MaxLanes(d)) {
        const auto va = hn::LoadU(d, a + i), vb = hn::LoadU(d, b + i);
        const auto diff = hn::Or(hn::SaturatedSub(va, vb), hn::SaturatedSub(vb, va));
        hn::StoreU(hn::Sub(hn::Min(hn::Max(diff, vlo), vhi), vlo), d, idx + i);
    }
}

// Loads bound a lookup, so four places come in one.
template <int n> HWY_INLINE void LookUp(const float *tbl, const uint16_t *idx, float *out)
{
    for (int i = 0; i < n; i += 4) {
        uint64_t four;
        memcpy(&four, idx + i, sizeof four);
        const float v0 = tbl[four & 0xFFFF];
        const float v1 = tbl[four >> 16 & 0xFFFF];
        const float v2 = tbl[four >> 32 & 0xFFFF];
        const float v3 = tbl[four >> 48];
        out[i] = v0;
        out[i + 1] = v1;
        out[i + 2] = v2;
        out[i + 3] = v3;
    }
}

// A block of 8 columns of 16 rows, turned: 16 values of a column behind each other.
HWY_INLINE void TurnTo16(const uint16_t *const *rows, int c, uint16_t *out)
{
    const hn::CappedTag<uint16_t, kRows> d;
    const hn::Repartition<uint32_t, decltype(d)> d32;
    const hn::Repartition<uint64_t, decltype(d)> d64;
    constexpr int n = (int)hn::MaxLanes(d); // 8, or 16: then the other rows stand in the second half
    for (int r = 0; r < kRows; r += n) {
        const auto load = [&](int i) HWY_ATTR {
            const hn::Half<decltype(d)> dh;
            if constexpr (n == 16)
                return hn::Combine(d, hn::LoadU(dh, rows[i + 8] + c), hn::LoadU(dh, rows[i] + c));
            else
                return hn::LoadU(d, rows[r + i] + c);
        };
        const auto v0 = load(0), v1 = load(1), v2 = load(2), v3 = load(3);
        const auto v4 = load(4), v5 = load(5), v6 = load(6), v7 = load(7);
        const auto lower = [=](auto a, auto b)
                               HWY_ATTR { return hn::BitCast(d32, hn::InterleaveLower(d, a, b)); };
        const auto upper = [=](auto a, auto b)
                               HWY_ATTR { return hn::BitCast(d32, hn::InterleaveUpper(d, a, b)); };
        const auto store4 = [&](auto a, auto b, auto c4, auto e, int at) HWY_ATTR {
            const auto ab0 = hn::BitCast(d64, hn::InterleaveLower(d32, a, b));
            const auto ab1 = hn::BitCast(d64, hn::InterleaveUpper(d32, a, b));
            const auto ce0 = hn::BitCast(d64, hn::InterleaveLower(d32, c4, e));
            const auto ce1 = hn::BitCast(d64, hn::InterleaveUpper(d32, c4, e));
            uint16_t *to = out + at * kRows + r;
            hn::StoreU(hn::BitCast(d, hn::InterleaveLower(d64, ab0, ce0)), d, to);
            hn::StoreU(hn::BitCast(d, hn::InterleaveUpper(d64, ab0, ce0)), d, to + kRows);
            hn::StoreU(hn::BitCast(d, hn::InterleaveLower(d64, ab1, ce1)), d, to + 2 * kRows);
            hn::StoreU(hn::BitCast(d, hn::InterleaveUpper(d64, ab1, ce1)), d, to + 3 * kRows);
        };
        store4(lower(v0, v1), lower(v2, v3), lower(v4, v5), lower(v6, v7), 0);
        store4(upper(v0, v1), upper(v2, v3), upper(v4, v5), upper(v6, v7), 4);
    }
}

// A vector of values that stand in fours, kRows * 4 apart.
template <class D> HWY_INLINE hn::Vec<D> LoadFours(D d, const float *p)
{
    constexpr size_t n = hn::MaxLanes(d);
    if constexpr (n == 4) {
        return hn::LoadU(d, p);
    } else {
        const hn::Half<D> dh;
        return hn::Combine(d, LoadFours(dh, p + n / 2 * kRows), LoadFours(dh, p));
    }
}

// 16 columns of 16 rows back into rows, of which the first n exist.
HWY_NOINLINE void TurnBack(const float *tile, float *out, int n)
{
    const DF d;
    const hn::Repartition<uint64_t, DF> d64;
    for (int r = 0; r < n; r += 4) {
        for (int c = 0; c < 16; c += kN) {
            const float *p = tile + c * kRows + r;
            const VF v0 = LoadFours(d, p), v1 = LoadFours(d, p + kRows);
            const VF v2 = LoadFours(d, p + 2 * kRows), v3 = LoadFours(d, p + 3 * kRows);
            const auto a0 = hn::BitCast(d64, hn::InterleaveLower(d, v0, v1));
            const auto a1 = hn::BitCast(d64, hn::InterleaveUpper(d, v0, v1));
            const auto b0 = hn::BitCast(d64, hn::InterleaveLower(d, v2, v3));
            const auto b1 = hn::BitCast(d64, hn::InterleaveUpper(d, v2, v3));
            float *to = out + r * kCols + c;
            hn::StoreU(hn::BitCast(d, hn::InterleaveLower(d64, a0, b0)), d, to);
            if (r + 1 < n)
                hn::StoreU(hn::BitCast(d, hn::InterleaveUpper(d64, a0, b0)), d, to + kCols);
            if (r + 2 < n)
                hn::StoreU(hn::BitCast(d, hn::InterleaveLower(d64, a1, b1)), d, to + 2 * kCols);
            if (r + 3 < n)
                hn::StoreU(hn::BitCast(d, hn::InterleaveUpper(d64, a1, b1)), d, to + 3 * kCols);
        }
    }
}

// 16 columns of the rows, from column c on; what lies beyond the width counts as 0.
HWY_NOINLINE void TurnTile(const uint16_t *const *rows, int c, int w, uint16_t *out)
{
    if (c + 16 <= w) {
        TurnTo16(rows, c, out);
        TurnTo16(rows, c + 8, out + 8 * kRows);
        return;
    }
    uint16_t tail[kRows][16] = {};
    const uint16_t *tails[kRows];
    for (int r = 0; r < kRows; r++) {
        memcpy(tail[r], rows[r] + c, (size_t)(w - c) * sizeof(uint16_t));
        tails[r] = tail[r];
    }
    TurnTo16(tails, 0, out);
    TurnTo16(tails, 8, out + 8 * kRows);
}

// Rows y to y + 15, both ways. A row beyond the last one repeats it. The passes keep all registers busy,
// so they and the turning must not share a frame.
HWY_NOINLINE void RowPass(const tq_bpf2d_iir_t *f, const uint16_t *src, int y, uint16_t lo, uint16_t hi)
{
    const DF d;
    const int w = (int)f->w, h = (int)f->h;
    const int wide = (w + 15) / 16 * 16;
    const float *tbl = bpf2d_table_x(f);
    float *const wt = f->line[0];
    float *const ys = wt + wide * kRows;
    float *const ns = ys + wide * kRows;
    uint16_t *const in = (uint16_t *)(ns + wide * kRows);
    const VF b = hn::Set(d, 1.0f - f->alpha_x);
    const uint16_t *rows[kRows];
    for (int r = 0; r < kRows; r++)
        rows[r] = src + (ptrdiff_t)std::min(y + r, h - 1) * w;

    VF yv[kVecs], nv[kVecs];
    for (int c = 0; c < w + kLag; c++) {
        if (c < w && c % 16 == 0)
            TurnTile(rows, c, w, in + c * kRows);
        if (c > 0 && c < w) {
            HWY_ALIGN uint16_t idx[kRows];
            Steps<kRows>(in + (c - 1) * kRows, in + c * kRows, lo, hi, idx);
            LookUp<kRows>(tbl, idx, wt + (c - 1) * kRows);
        }
        if (c < kLag)
            continue;
        const int i = (c - kLag) * kRows;
        for (int v = 0; v < kVecs; v++) {
            const VF x = LoadFloat(in + i + v * kN);
            if (i == 0) {
                yv[v] = x;
                nv[v] = hn::Set(d, 1.0f);
            } else {
                const VF weight = hn::LoadU(d, wt + i - kRows + v * kN);
                yv[v] = hn::Add(hn::Mul(weight, yv[v]), hn::Mul(b, x));
                nv[v] = hn::Add(hn::Mul(weight, nv[v]), b);
            }
            hn::StoreU(yv[v], d, ys + i + v * kN);
            hn::StoreU(nv[v], d, ns + i + v * kN);
        }
    }

    HWY_ALIGN float sum[16 * kRows] = {}, norm[16 * kRows] = {};
    for (int c = w - 1; c >= 0; c--) {
        const int i = c * kRows, at = c % 16 * kRows;
        for (int v = 0; v < kVecs; v++) {
            const VF x = LoadFloat(in + i + v * kN);
            if (c == w - 1) {
                yv[v] = x;
                nv[v] = hn::Set(d, 1.0f);
            } else {
                const VF weight = hn::LoadU(d, wt + i + v * kN);
                yv[v] = hn::Add(hn::Mul(weight, yv[v]), hn::Mul(b, x));
                nv[v] = hn::Add(hn::Mul(weight, nv[v]), b);
            }
            hn::StoreU(hn::Add(hn::LoadU(d, ys + i + v * kN), yv[v]), d, sum + at + v * kN);
            hn::StoreU(hn::Add(hn::LoadU(d, ns + i + v * kN), nv[v]), d, norm + at + v * kN);
        }
        if (c % 16 == 0) {
            const ptrdiff_t place = (ptrdiff_t)(c / kCols) * kCols * h + (ptrdiff_t)y * kCols + c % kCols;
            const int n = std::min(kRows, h - y);
            TurnBack(sum, f->sum + place, n);
            TurnBack(norm, f->norm + place, n);
        }
    }
}

// Columns x to x + 31 of row y; what lies beyond the width counts as 0.
HWY_INLINE const uint16_t *Columns(const uint16_t *src, int w, int x, int y, uint16_t *room)
{
    const uint16_t *p = src + (ptrdiff_t)y * w + x;
    if (x + kCols <= w)
        return p;
    memcpy(room, p, (size_t)(w - x) * sizeof *room);
    return room;
}

// Columns x to x + 31, both ways.
HWY_NOINLINE void ColumnPass(const tq_bpf2d_iir_t *f, uint16_t *dst, const uint16_t *src, int x, uint16_t lo,
                             uint16_t hi)
{
    const DF d;
    const int w = (int)f->w, h = (int)f->h;
    const float *tbl = bpf2d_table_y(f);
    const float *sum = f->sum + (ptrdiff_t)x * h;
    const float *norm = f->norm + (ptrdiff_t)x * h;
    float *const wt = f->line[0];
    float *const ss = wt + (ptrdiff_t)h * kCols;
    float *const ns = ss + (ptrdiff_t)h * kCols;
    const VF start = hn::Set(d, 1.0f / (1.0f - f->alpha_y));
    constexpr int lag = 4;

    HWY_ALIGN uint16_t room[2][kCols] = {};
    const uint16_t *above = nullptr;
    for (int j = 0; j < h + lag; j++) {
        if (j < h) {
            const uint16_t *here = Columns(src, w, x, j, room[j % 2]);
            const uint16_t *soon = src + (ptrdiff_t)std::min(j + 8, h - 1) * w;
            hwy::Prefetch(soon + x); // rows are far apart, and these may span two lines
            hwy::Prefetch(soon + std::min(x + kCols, w) - 1);
            if (j > 0) {
                HWY_ALIGN uint16_t idx[kCols];
                Steps<kCols>(above, here, lo, hi, idx);
                LookUp<kCols>(tbl, idx, wt + (ptrdiff_t)(j - 1) * kCols);
            }
            above = here;
        }
        if (j < lag)
            continue;
        const ptrdiff_t at = (ptrdiff_t)(j - lag) * kCols;
        for (int c = 0; c < kCols; c += kN) {
            const ptrdiff_t i = at + c;
            VF s = hn::LoadU(d, sum + i), n = hn::LoadU(d, norm + i);
            if (at == 0) {
                s = hn::Mul(s, start);
                n = hn::Mul(n, start);
            } else {
                const VF weight = hn::LoadU(d, wt + i - kCols);
                s = hn::Add(hn::Mul(weight, hn::LoadU(d, ss + i - kCols)), s);
                n = hn::Add(hn::Mul(weight, hn::LoadU(d, ns + i - kCols)), n);
            }
            hn::StoreU(s, d, ss + i);
            hn::StoreU(n, d, ns + i);
        }
    }

    HWY_ALIGN float up_s[kCols], up_n[kCols];
    HWY_ALIGN uint16_t out[kCols];
    for (int j = h - 1; j >= 0; j--) {
        for (int c = 0; c < kCols; c += kN) {
            const ptrdiff_t i = (ptrdiff_t)j * kCols + c;
            VF s = hn::LoadU(d, sum + i), n = hn::LoadU(d, norm + i);
            if (j == h - 1) {
                s = hn::Mul(s, start);
                n = hn::Mul(n, start);
            } else {
                const VF weight = hn::LoadU(d, wt + i);
                s = hn::Add(hn::Mul(weight, hn::Load(d, up_s + c)), s);
                n = hn::Add(hn::Mul(weight, hn::Load(d, up_n + c)), n);
            }
            hn::Store(s, d, up_s + c);
            hn::Store(n, d, up_n + c);
            const VF q = hn::Div(hn::Add(hn::LoadU(d, ss + i), s), hn::Add(hn::LoadU(d, ns + i), n));
            const VF held =
                hn::IfThenElseZero(hn::Gt(q, hn::Zero(d)), hn::Min(q, hn::Set(d, 65535.0f))); // not for NaN
            hn::StoreU(hn::DemoteTo(DU(), hn::ConvertTo(DI(), held)), DU(), out + c);
        }
        memcpy(dst + (ptrdiff_t)j * w + x, out, (size_t)std::min(kCols, w - x) * sizeof *dst);
    }
}

void Bpf2dIir(tq_bpf2d_iir_t *f, uint16_t *dst, const uint16_t *src)
{
    const uint16_t lo = (uint16_t)f->lo, hi = (uint16_t)f->hi;
    for (int y = 0; y < (int)f->h; y += kRows)
        RowPass(f, src, y, lo, hi);
    for (int x = 0; x < (int)f->w; x += kCols)
        ColumnPass(f, dst, src, x, lo, hi);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(Bpf2dIir);

void bpf2d_iir_simd(tq_bpf2d_iir_t *f, uint16_t *dst, const uint16_t *src)
{
    HWY_DYNAMIC_DISPATCH(Bpf2dIir)(f, dst, src);
}

#endif
