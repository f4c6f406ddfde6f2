// The recursive Gaussian on vectors. A recursion can't be split along its line, so lines run beside each
// other: for the rows a block of them is transposed on its way in and back on its way out, for the columns
// that is how they lie. Each value waits for the one before it, through a product and three sums; some
// vectors of lines at once fill the wait.
#include "image/gauss_iir_kernels.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/gauss_iir_simd.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if TQ_PLAIN_TARGET

bool Filter(float *dst, const float *src, int w, int h, const gauss_iir_coef_t &c)
{
    gauss_iir_f32_plain(dst, src, w, h, c);
    return true;
}

void ToU16(uint16_t *dst, const float *src, size_t n)
{
    gauss_iir_to_u16_plain(dst, src, n);
}

#else

using D = hn::CappedTag<float, 16>;
using V = hn::Vec<D>;
constexpr int N = (int)hn::MaxLanes(D());
constexpr D d{};

// Vectors of lines at once: with three results each, as many as the registers hold.
#if HWY_TARGET <= HWY_AVX3 || HWY_ARCH_ARM
constexpr int VECS = 4;
#elif HWY_TARGET == HWY_AVX2
constexpr int VECS = 3;
#else
constexpr int VECS = 2; // products overwrite an operand
#endif
constexpr int ROW_VECS = N == 16 ? 2 : VECS; // rows also take room in the cache
constexpr int ROWS = ROW_VECS * N;

struct coef_t {
    V b1, b2, b3, B;
};

// K vectors of lines with their last three results. One inside the other, not an array, so that they live in
// registers.
template <int K> struct lines_t {
    V y1, y2, y3;
    lines_t<K - 1> rest;

    HWY_INLINE lines_t() {} // an implicit one wouldn't be compiled for the target
    // As if the lines had always had the value at first.
    HWY_INLINE void Start(const float *first)
    {
        y1 = y2 = y3 = hn::LoadU(d, first);
        rest.Start(first + N);
    }
    HWY_INLINE void Step(const coef_t &c, float *out, const float *in)
    {
        const V x = hn::Mul(c.B, hn::LoadU(d, in));
        const V y = hn::Add(hn::Add(hn::Add(x, hn::Mul(c.b1, y1)), hn::Mul(c.b2, y2)), hn::Mul(c.b3, y3));
        y3 = y2;
        y2 = y1;
        y1 = y;
        hn::StoreU(y, d, out);
        rest.Step(c, out + N, in + N);
    }
};
template <> struct lines_t<0> {
    HWY_INLINE void Start(const float *) {}
    HWY_INLINE void Step(const coef_t &, float *, const float *) {}
};

// n steps of K vectors of lines, the last three results in *state.
template <int K>
HWY_INLINE void Run(lines_t<K> *state, const coef_t &coef, int n, float *out, ptrdiff_t out_step,
                    const float *in, ptrdiff_t in_step)
{
    lines_t<K> lines = *state;
    const coef_t c = coef;
    for (int i = 0; i < n; i++, out += out_step, in += in_step)
        lines.Step(c, out, in);
    *state = lines;
}

// Turns four rows of four, in each block of four lanes by itself.
HWY_INLINE void Transpose4(V &a, V &b, V &c, V &e)
{
    const hn::Repartition<uint64_t, D> d64;
    const auto ab0 = hn::BitCast(d64, hn::InterleaveLower(d, a, b));
    const auto ab1 = hn::BitCast(d64, hn::InterleaveUpper(d, a, b));
    const auto ce0 = hn::BitCast(d64, hn::InterleaveLower(d, c, e));
    const auto ce1 = hn::BitCast(d64, hn::InterleaveUpper(d, c, e));
    a = hn::BitCast(d, hn::InterleaveLower(d64, ab0, ce0));
    b = hn::BitCast(d, hn::InterleaveUpper(d64, ab0, ce0));
    c = hn::BitCast(d, hn::InterleaveLower(d64, ab1, ce1));
    e = hn::BitCast(d, hn::InterleaveUpper(d64, ab1, ce1));
}

// Turns N rows of N.
HWY_INLINE void Transpose(V *v)
{
    for (int i = 0; i < N; i += 4)
        Transpose4(v[i], v[i + 1], v[i + 2], v[i + 3]);
#if HWY_MAX_BYTES == 32
    for (int i = 0; i < 4; i++) {
        const V a = v[i], b = v[4 + i];
        v[i] = hn::ConcatLowerLower(d, b, a);
        v[4 + i] = hn::ConcatUpperUpper(d, b, a);
    }
#elif HWY_MAX_BYTES >= 64
    for (int i = 0; i < 4; i++) {
        // Blocks 0 to 3 of four vectors, first by halves, then by neighbours.
        const V low02 = hn::ConcatLowerLower(d, v[8 + i], v[i]),
                low13 = hn::ConcatLowerLower(d, v[12 + i], v[4 + i]);
        const V high02 = hn::ConcatUpperUpper(d, v[8 + i], v[i]),
                high13 = hn::ConcatUpperUpper(d, v[12 + i], v[4 + i]);
        v[i] = hn::OddEvenBlocks(hn::SwapAdjacentBlocks(low13), low02);
        v[4 + i] = hn::OddEvenBlocks(low13, hn::SwapAdjacentBlocks(low02));
        v[8 + i] = hn::OddEvenBlocks(hn::SwapAdjacentBlocks(high13), high02);
        v[12 + i] = hn::OddEvenBlocks(high13, hn::SwapAdjacentBlocks(high02));
    }
#endif
}

// A tile of N columns of ROWS rows, by columns.
struct tile_t {
    alignas(64) float at[N][ROWS];
};

HWY_INLINE void LoadTile(tile_t *t, const float *const *rows, int x, int cols)
{
    if (cols == N) {
        for (int r = 0; r < ROWS; r += N) {
            V v[N];
            for (int i = 0; i < N; i++)
                v[i] = hn::LoadU(d, rows[r + i] + x);
            Transpose(v);
            for (int i = 0; i < N; i++)
                hn::Store(v[i], d, t->at[i] + r);
        }
        return;
    }
    for (int r = 0; r < ROWS; r++)
        for (int i = 0; i < cols; i++)
            t->at[i][r] = rows[r][x + i];
}

HWY_INLINE void StoreTile(const tile_t *t, float *dst, int w, int rows, int x, int cols)
{
    if (cols == N) {
        for (int r = 0; r < rows; r += N) {
            V v[N];
            for (int i = 0; i < N; i++)
                v[i] = hn::Load(d, t->at[i] + r);
            Transpose(v);
            for (int i = 0; i < std::min(N, rows - r); i++)
                hn::StoreU(v[i], d, dst + (size_t)w * (r + i) + x);
        }
        return;
    }
    for (int r = 0; r < rows; r++)
        for (int i = 0; i < cols; i++)
            dst[(size_t)w * r + x + i] = t->at[i][r];
}

// Rows, ROWS at a time; buf has room for ROWS * w values. Rows beyond the last are it once more, in vain.
HWY_INLINE void FilterRows(float *dst, const float *src, int w, int h, const coef_t &c, float *buf)
{
    lines_t<ROW_VECS> lines;
    tile_t t;
    const float *rows[ROWS];
    for (int y = 0; y < h; y += ROWS) {
        for (int r = 0; r < ROWS; r++)
            rows[r] = src + (size_t)w * std::min(y + r, h - 1);
        for (int x = 0; x < w; x += N) {
            const int cols = std::min(N, w - x);
            LoadTile(&t, rows, x, cols);
            if (x == 0)
                lines.Start(t.at[0]);
            Run(&lines, c, cols, buf + (size_t)ROWS * x, ROWS, t.at[0], ROWS);
        }
        lines.Start(buf + (size_t)ROWS * (w - 1));
        for (int x = (w - 1) / N * N; x >= 0; x -= N) {
            const int cols = std::min(N, w - x);
            Run(&lines, c, cols, t.at[cols - 1], -ROWS, buf + (size_t)ROWS * (x + cols - 1), -ROWS);
            StoreTile(&t, dst + (size_t)w * y, w, std::min(ROWS, h - y), x, cols);
        }
    }
}

// K vectors of columns, step apart from row to row, in place.
template <int K> HWY_INLINE void FilterColumns(float *img, size_t step, int h, const coef_t &c)
{
    lines_t<K> lines;
    lines.Start(img);
    Run(&lines, c, h, img, (ptrdiff_t)step, img, (ptrdiff_t)step);
    float *last = img + step * (h - 1);
    lines.Start(last);
    Run(&lines, c, h, last, -(ptrdiff_t)step, last, -(ptrdiff_t)step);
}

bool Filter(float *dst, const float *src, int w, int h, const gauss_iir_coef_t &c)
{
    const coef_t coef = {hn::Set(d, c.b1), hn::Set(d, c.b2), hn::Set(d, c.b3), hn::Set(d, c.B)};
    const size_t room = std::max((size_t)w * ROWS, (size_t)h * N) * sizeof(float);
    const std::unique_ptr<float, decltype(&free)> buf((float *)aligned_alloc(64, (room + 63) / 64 * 64),
                                                      free);
    if (!buf)
        return false;
    FilterRows(dst, src, w, h, coef, buf.get());
    int x = 0;
    for (; x + VECS * N <= w; x += VECS * N)
        FilterColumns<VECS>(dst + x, w, h, coef);
    if (x + 2 * N <= w) {
        FilterColumns<2>(dst + x, w, h, coef);
        x += 2 * N;
    }
    for (; x + N <= w; x += N)
        FilterColumns<1>(dst + x, w, h, coef);
    if (x < w) { // the last columns, widened to a vector
        const size_t bytes = (size_t)(w - x) * sizeof(float);
        float *wide = buf.get();
        memset(wide, 0, (size_t)h * N * sizeof(float));
        for (int y = 0; y < h; y++)
            memcpy(wide + (size_t)N * y, dst + (size_t)w * y + x, bytes);
        FilterColumns<1>(wide, N, h, coef);
        for (int y = 0; y < h; y++)
            memcpy(dst + (size_t)w * y + x, wide + (size_t)N * y, bytes);
    }
    return true;
}

void ToU16(uint16_t *dst, const float *src, size_t n)
{
    const hn::Rebind<int32_t, D> di;
    const hn::Rebind<uint16_t, D> du;
    size_t i = 0;
    for (; i + N <= n; i += N) {
        const V v = hn::LoadU(d, src + i);
        const V held = hn::IfThenElseZero(hn::Gt(v, hn::Zero(d)), hn::Min(v, hn::Set(d, 65535.0f)));
        hn::StoreU(hn::DemoteTo(du, hn::ConvertTo(di, held)), du, dst + i);
    }
    gauss_iir_to_u16_plain(dst + i, src + i, n - i);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(Filter);
HWY_EXPORT(ToU16);

bool gauss_iir_f32_simd(float *dst, const float *src, int w, int h, const gauss_iir_coef_t &c)
{
    return HWY_DYNAMIC_DISPATCH(Filter)(dst, src, w, h, c);
}

void gauss_iir_to_u16_simd(uint16_t *dst, const float *src, size_t n)
{
    HWY_DYNAMIC_DISPATCH(ToU16)(dst, src, n);
}
#endif
