#include "image/cmap_kernels.h"

#include <algorithm>
#include <cstring>
#include <utility>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/cmap_rgb_simd.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

constexpr int kChunk = 64; // pixels between a step and the next: what scalars store, vectors load later

#if TQ_PLAIN_TARGET

constexpr bool kVectors = false;

struct Blender {
    Blender(const palette_row_t *, const rgb_order_t &) {}
    void Colours(const float *, int, float, float, uint32_t *) const {}
};

void Places(const uint16_t *src, uint16_t vmin, uint16_t last, uint16_t *place)
{
    for (int k = 0; k < kChunk; k++)
        place[k] = std::min((uint16_t)(src[k] > vmin ? src[k] - vmin : 0), last);
}

int PutPacked3(const uint32_t *, int, uint8_t *)
{
    return 0;
}

int PutPlanes(const uint32_t *, int, const rgb_out_t &)
{
    return 0;
}

#else

namespace hn = hwy::HWY_NAMESPACE;

constexpr bool kVectors = true;

using DF = hn::CappedTag<float, 16>;
using DI = hn::RebindToSigned<DF>;
using VF = hn::Vec<DF>;
using VI = hn::Vec<DI>;
constexpr int kN = (int)hn::MaxLanes(DF());

// The lines of places in a palette: for place f between rows i and j, four lanes of row i, then of row j. A
// line behind the last is black.
constexpr int kLine = 8;
constexpr int kBlack = kPaletteRows;

// Of values that fit, which is all that ConvertTo would look after.
HWY_INLINE VI Truncate(VF v)
{
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
    return VI{_mm512_cvttps_epi32(v.raw)};
#elif HWY_TARGET == HWY_AVX2
    return VI{_mm256_cvttps_epi32(v.raw)};
#elif HWY_ARCH_X86
    return VI{_mm_cvttps_epi32(v.raw)};
#else
    return hn::ConvertTo(DI(), v);
#endif
}

// One line to each four lanes, for the pixels whose lines stand four apart.
template <class D> HWY_INLINE hn::Vec<D> LoadLines(D d, const float *lines, const int32_t *at)
{
    constexpr size_t n = hn::MaxLanes(d);
    if constexpr (n == 4) {
        return hn::LoadU(d, lines + (ptrdiff_t)*at * kLine);
    } else {
        const hn::Half<D> dh;
        return hn::Combine(d, LoadLines(dh, lines, at + n / 2), LoadLines(dh, lines, at));
    }
}

struct Blender {
    HWY_ALIGN float lines[(kPaletteRows + 1) * kLine];

    Blender(const palette_row_t *pal, const rgb_order_t &order)
    {
        memset(lines, 0, sizeof lines);
        for (int i = 0; i < kPaletteRows; i++) {
            for (int c = 0; c < 3; c++) {
                lines[i * kLine + order.at[c]] = pal[i][c];
                lines[i * kLine + 4 + order.at[c]] = pal[std::min(i, 253) + 1][c];
            }
        }
    }

    // Four lanes to a pixel, those of one number in each four: the pixels that blend() takes at once. The
    // rule adds half a step in double; the float before 0.5 does the same in f32, for every f32 up to 256.
    template <int q> HWY_INLINE VI Blend(VF t, VF s, const int32_t *at) const
    {
        const DF d;
        const VF near = LoadLines(d, lines, at + q);
        const VF next = LoadLines(d, lines + 4, at + q);
        const VF sum = hn::Add(hn::Mul(next, hn::Broadcast<q>(t)), hn::Mul(near, hn::Broadcast<q>(s)));
        return Truncate(hn::Add(hn::Mul(sum, hn::Set(d, 255.0f)), hn::Set(d, 0x1.fffffep-2f)));
    }

    // n values up to a chunk; src and out have room for a whole one. All places first, then all colours:
    // compilers would else hold places in vectors and take them out one by one.
    HWY_INLINE void Colours(const float *src, int n, float vmin, float vmax, uint32_t *out) const
    {
        const DF d;
        const DI di;
        const bool empty = !(vmax > vmin);
        const VF lo = hn::Set(d, vmin), hi = hn::Set(d, vmax);
        const VF scale = hn::Set(d, 255.0f / (vmax - vmin));
        const VF last = hn::Set(d, 255.0f);
        HWY_ALIGN int32_t at[kChunk];
        HWY_ALIGN float part[kChunk];
        for (int k = 0; k < n; k += kN) {
            const VF v = hn::LoadU(d, src + k);
            const auto black = hn::Not(hn::Gt(v, lo));
            // As in the plain form, and what isn't a number goes to the first row.
            const VF cut = hn::IfThenElse(hn::Lt(v, hi), v, hi);
            VF f = empty ? last : hn::Mul(hn::Sub(cut, lo), scale);
            f = hn::IfThenElseZero(hn::Ge(f, hn::Zero(d)), f);
            f = hn::IfThenElse(hn::Ge(f, hn::Set(d, 256.0f)), last, f);
            f = hn::IfThenZeroElse(black, f);
            const VI i = Truncate(f);
            hn::Store(hn::Sub(f, hn::ConvertTo(d, i)), d, part + k);
            hn::Store(hn::IfThenElse(hn::RebindMask(di, black), hn::Set(di, kBlack), i), di, at + k);
        }
        for (int k = 0; k < n; k += kN) {
            const VF t = hn::Load(d, part + k);
            const VF s = hn::Sub(hn::Set(d, 1.0f), t);
            const VI c01 = hn::Or(Blend<0>(t, s, at + k), hn::ShiftLeft<16>(Blend<1>(t, s, at + k)));
            const VI c23 = hn::Or(Blend<2>(t, s, at + k), hn::ShiftLeft<16>(Blend<3>(t, s, at + k)));
            hn::StoreU(Pack(c01, c23), di, (int32_t *)out + k);
        }
    }

    // Lane c of a block holds channel c of pixels 0 and 1, or 2 and 3, in bytes 0 and 2.
    static HWY_INLINE VI Pack(VI c01, VI c23)
    {
        const DI di;
        const hn::Repartition<uint8_t, DI> d8;
        HWY_ALIGN static constexpr uint8_t kTurn[16] = {0, 4, 8, 12, 2, 6, 10, 14, 1, 5, 9, 13, 3, 7, 11, 15};
        const auto turn = hn::LoadDup128(d8, kTurn);
        const VI both = hn::Or(c01, hn::ShiftLeft<8>(c23));
        return hn::BitCast(di, hn::TableLookupBytes(hn::BitCast(d8, both), turn));
    }
};

// The places of a chunk of values in a table.
HWY_INLINE void Places(const uint16_t *src, uint16_t vmin, uint16_t last, uint16_t *place)
{
    const hn::CappedTag<uint16_t, kChunk> d;
    for (int k = 0; k < kChunk; k += (int)hn::MaxLanes(d)) {
        const auto above = hn::SaturatedSub(hn::LoadU(d, src + k), hn::Set(d, vmin));
        hn::StoreU(hn::Min(above, hn::Set(d, last)), d, place + k);
    }
}

// Packed pixels of three bytes: each store carries four pixels and runs on into the next four, which come
// later. Returns how many pixels were put.
HWY_INLINE int PutPacked3(const uint32_t *colours, int n, uint8_t *to)
{
    const hn::FixedTag<uint8_t, 16> d8;
    HWY_ALIGN static constexpr uint8_t kTake[16] = {0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, 15, 15, 15, 15};
    const auto take = hn::Load(d8, kTake);
    int k = 0;
    for (; k + 6 <= n; k += 4)
        hn::StoreU(hn::TableLookupBytes(hn::LoadU(d8, (const uint8_t *)(colours + k)), take), d8, to + 3 * k);
    return k;
}

// Planes of their own. Returns how many pixels were put.
HWY_INLINE int PutPlanes(const uint32_t *colours, int n, const rgb_out_t &out)
{
    const hn::CappedTag<uint8_t, kChunk> d8;
    const int lanes = (int)hn::MaxLanes(d8);
    int k = 0;
    for (; k + lanes <= n; k += lanes) {
        hn::Vec<decltype(d8)> r, g, b, none;
        hn::LoadInterleaved4(d8, (const uint8_t *)(colours + k), r, g, b, none);
        hn::StoreU(r, d8, out.r + k);
        hn::StoreU(g, d8, out.g + k);
        hn::StoreU(b, d8, out.b + k);
    }
    return k;
}

#endif

// Puts colours where they belong: from pixel first on, n of them.
struct Writer {
    rgb_out_t out;
    rgb_order_t order;
    bool planes; // far enough from each other

    explicit Writer(const rgb_out_t &to, int n) : out(to), order(cmap_order(to)), planes(to.stride == 1)
    {
        const uintptr_t r = (uintptr_t)to.r, g = (uintptr_t)to.g, b = (uintptr_t)to.b, room = (uintptr_t)n;
        for (const auto &[p, q] : {std::pair(r, g), std::pair(g, b), std::pair(r, b)})
            planes = planes && (p < q ? q - p : p - q) >= room;
    }

    HWY_INLINE void Put(const uint32_t *colours, int first, int n) const
    {
        const rgb_out_t to = {out.r + first * out.stride, out.g + first * out.stride,
                              out.b + first * out.stride, out.stride};
        uint8_t *const cell = std::min({to.r, to.g, to.b});
        int k = 0;
        if (order.packed && out.stride == 3)
            k = PutPacked3(colours, n, cell);
        else if (planes)
            k = PutPlanes(colours, n, to);
        if (order.packed) {
            for (; k < n; k++) {
                uint8_t *const p = cell + k * out.stride;
                const uint16_t two = (uint16_t)colours[k];
                memcpy(p, &two, sizeof two);
                p[2] = (uint8_t)(colours[k] >> 16);
            }
        }
        for (; k < n; k++) {
            to.r[k * out.stride] = (uint8_t)colours[k];
            to.g[k * out.stride] = (uint8_t)(colours[k] >> 8);
            to.b[k * out.stride] = (uint8_t)(colours[k] >> 16);
        }
    }
};

void F32ToRgb(const palette_row_t *pal, const float *src, int n, const rgb_out_t &out, float vmin, float vmax)
{
    if (!kVectors) {
        cmap_f32_to_rgb_plain(pal, src, n, out, vmin, vmax);
        return;
    }
    const Writer writer(out, n);
    const Blender blender(pal, writer.order);
    HWY_ALIGN uint32_t colours[kChunk];
    HWY_ALIGN float tail[kChunk] = {};
    for (int at = 0; at < n; at += kChunk) {
        const int m = std::min(kChunk, n - at);
        const float *from = src + at;
        if (m < kChunk) {
            memcpy(tail, from, (size_t)m * sizeof *tail);
            from = tail;
        }
        blender.Colours(from, m, vmin, vmax, colours);
        writer.Put(colours, at, m);
    }
}

// Differences of 16 bits are exact in f32, so that both kinds of values take the same way.
void U16ToRgb(const palette_row_t *pal, const uint16_t *src, int n, const rgb_out_t &out, uint16_t vmin,
              uint16_t vmax)
{
    if (!kVectors) {
        cmap_u16_to_rgb_plain(pal, src, n, out, vmin, vmax);
        return;
    }
    const Writer writer(out, n);
    const Blender blender(pal, writer.order);
    HWY_ALIGN uint32_t colours[kChunk];
    HWY_ALIGN float values[kChunk] = {};
    for (int at = 0; at < n; at += kChunk) {
        const int m = std::min(kChunk, n - at);
        for (int k = 0; k < m; k++)
            values[k] = src[at + k];
        blender.Colours(values, m, vmin, vmax, colours);
        writer.Put(colours, at, m);
    }
}

void MakeTable(const palette_row_t *pal, const rgb_order_t &order, uint16_t vmin, uint16_t vmax,
               uint32_t *tbl)
{
    const int n = cmap_table_last(vmin, vmax) + 1;
    if (!kVectors) {
        uint16_t value = vmin;
        uint8_t rgb[3];
        const rgb_out_t to = {rgb + order.at[0], rgb + order.at[1], rgb + order.at[2], 3};
        for (int i = 0; i < n; i++, value++) {
            cmap_u16_to_rgb_plain(pal, &value, 1, to, vmin, vmax);
            tbl[i] = (uint32_t)(rgb[0] | rgb[1] << 8 | rgb[2] << 16);
        }
        return;
    }
    const Blender blender(pal, order);
    HWY_ALIGN uint32_t colours[kChunk];
    HWY_ALIGN float values[kChunk];
    for (int at = 0; at < n; at += kChunk) {
        const int m = std::min(kChunk, n - at);
        for (int k = 0; k < kChunk; k++)
            values[k] = (float)(vmin + at + k);
        blender.Colours(values, m, vmin, vmax, colours);
        memcpy(tbl + at, colours, (size_t)m * sizeof *tbl);
    }
}

void ByTable(const uint32_t *tbl, const uint16_t *src, int n, const rgb_out_t &out, uint16_t vmin,
             uint16_t vmax)
{
    const Writer writer(out, n);
    const uint16_t last = (uint16_t)cmap_table_last(vmin, vmax);
    HWY_ALIGN uint16_t place[kChunk];
    HWY_ALIGN uint32_t colours[kChunk];
    for (int at = 0; at < n; at += kChunk) {
        const int m = std::min(kChunk, n - at);
        const uint16_t *from = src + at;
        if (m < kChunk) {
            memset(place, 0, sizeof place);
            memcpy(place, from, (size_t)m * sizeof *place);
            from = place;
        }
        Places(from, vmin, last, place);
        for (int k = 0; k < kChunk; k += 4) {
            uint64_t four; // places in one load
            memcpy(&four, place + k, sizeof four);
            const uint32_t c0 = tbl[four & 0xFFFF];
            const uint32_t c1 = tbl[four >> 16 & 0xFFFF];
            const uint32_t c2 = tbl[four >> 32 & 0xFFFF];
            const uint32_t c3 = tbl[four >> 48];
            colours[k] = c0;
            colours[k + 1] = c1;
            colours[k + 2] = c2;
            colours[k + 3] = c3;
        }
        writer.Put(colours, at, m);
    }
}

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(F32ToRgb);
HWY_EXPORT(U16ToRgb);
HWY_EXPORT(MakeTable);
HWY_EXPORT(ByTable);

rgb_order_t cmap_order(const rgb_out_t &out)
{
    const uintptr_t r = (uintptr_t)out.r, g = (uintptr_t)out.g, b = (uintptr_t)out.b;
    const uintptr_t cell = std::min({r, g, b});
    if (out.stride >= 3 && std::max({r, g, b}) - cell == 2 && r != g && g != b && r != b)
        return {{(uint8_t)(r - cell), (uint8_t)(g - cell), (uint8_t)(b - cell)}, true};
    return {{0, 1, 2}, false};
}

void cmap_u16_to_rgb_simd(const palette_row_t *pal, const uint16_t *src, int n, const rgb_out_t &out,
                          uint16_t vmin, uint16_t vmax)
{
    HWY_DYNAMIC_DISPATCH(U16ToRgb)(pal, src, n, out, vmin, vmax);
}

void cmap_f32_to_rgb_simd(const palette_row_t *pal, const float *src, int n, const rgb_out_t &out, float vmin,
                          float vmax)
{
    HWY_DYNAMIC_DISPATCH(F32ToRgb)(pal, src, n, out, vmin, vmax);
}

void cmap_make_table_simd(const palette_row_t *pal, const rgb_order_t &order, uint16_t vmin, uint16_t vmax,
                          uint32_t *tbl)
{
    HWY_DYNAMIC_DISPATCH(MakeTable)(pal, order, vmin, vmax, tbl);
}

void cmap_by_table_simd(const uint32_t *tbl, const uint16_t *src, int n, const rgb_out_t &out, uint16_t vmin,
                        uint16_t vmax)
{
    HWY_DYNAMIC_DISPATCH(ByTable)(tbl, src, n, out, vmin, vmax);
}

#endif
