// Rows of four-plane frames on vectors: the uncalibrated distance and the calibrated ones. Modes of fewer
// planes, a gray reference and ranges beyond 16 bits take the plain forms.
#include "drivers/epc/epc_kernels.h"

#include <cmath>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "drivers/epc/epc_rows_simd.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "drivers/common/phase.h"
#include "drivers/common/phase_simd-inl.h"
#include "simd/dispatch.h"
#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

#if TQ_PLAIN_TARGET

void DistRow(const epc_row_t &row, const epc_dist_t &d)
{
    epc_dist_row_plain(row, d);
}
void GlobalRow(const epc_row_t &row, const epc_dist_t &d)
{
    epc_global_row_plain(row, d);
}
void DrnuRow(const epc_row_t &row, const epc_dist_t &d)
{
    epc_drnu_row_plain(row, d);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

using DS = hn::ScalableTag<int16_t>;
using DH = hn::RebindToUnsigned<DS>;
using DI = hn::RepartitionToWide<DS>;
using DU = hn::RebindToUnsigned<DI>;
using DF = hn::RebindToFloat<DI>;
using D16 = hn::Rebind<uint16_t, DI>;
using VS = hn::Vec<DS>;
using VH = hn::Vec<DH>; // twice as many pixels as in a VI
using VI = hn::Vec<DI>;

template <int shift> HWY_INLINE VS LoadSamples(const uint16_t *p)
{
    return hn::BitCast(DS(), hn::ShiftRight<shift>(hn::LoadU(DH(), p)));
}

// The phases of a vector of pixels, and what of them is valid. Amplitudes go to the row.
struct Phases {
    VH phase; // with the base; bits above the turn don't count
    hn::Mask<DH> valid;
};

template <int shift> HWY_INLINE Phases RunPixels(const epc_row_t &row, size_t x, VH base)
{
    const DS ds;
    const DH dh;
    const VS p0 = LoadSamples<shift>(row.p[0] + x), p1 = LoadSamples<shift>(row.p[1] + x);
    const VS p2 = LoadSamples<shift>(row.p[2] + x), p3 = LoadSamples<shift>(row.p[3] + x);
    const VS least = hn::Min(hn::Min(p0, p1), hn::Min(p2, p3)); // words above 32767 are negative here
    const VS most = hn::Max(hn::Max(p0, p1), hn::Max(p2, p3));
    const auto valid = hn::And(hn::Gt(least, hn::Set(ds, 1)), hn::Lt(most, hn::Set(ds, 4094)));
    // The phase doesn't wait for what is valid: that of the others is passed over.
    const VS i = hn::Sub(p2, p0), q = hn::Sub(p3, p1);
    const auto amps = SquaredAmps(ds, hn::IfThenElseZero(valid, i), hn::IfThenElseZero(valid, q));
    hn::StoreU(amps.lower, DU(), row.amp + x);
    hn::StoreU(amps.upper, DU(), row.amp + x + hn::Lanes(DU()));
    return {hn::Add(hn::BitCast(dh, PhaseAngles(ds, i, q)), base), hn::RebindMask(dh, valid)};
}

// The pixels that don't fill a vector.
HWY_INLINE epc_row_t RestOf(const epc_row_t &row, size_t x)
{
    epc_row_t rest = row;
    for (const uint16_t *&p : rest.p)
        p += x;
    rest.dist += x;
    rest.amp += x;
    if (rest.slope) {
        rest.slope += x;
        rest.offset += x;
    }
    rest.n -= x;
    return rest;
}

template <int shift> HWY_INLINE size_t DistPixels(const epc_row_t &row, const epc_dist_t &d)
{
    const DH dh;
    const size_t lanes = hn::Lanes(dh);
    const VH base = hn::Set(dh, static_cast<uint16_t>(d.base));
    const VH dmax = hn::Set(dh, static_cast<uint16_t>(d.dmax));
    const VH off = hn::Set(dh, static_cast<uint16_t>(d.off)), invalid = hn::Set(dh, d.invalid);
    size_t x = 0;
    for (; x + lanes <= row.n; x += lanes) {
        const Phases p = RunPixels<shift>(row, x, base);
        const VH mm = hn::Add(hn::MulHigh(hn::Add(p.phase, p.phase), dmax), off);
        hn::StoreU(hn::IfThenElse(p.valid, mm, invalid), dh, row.dist + x);
    }
    return x;
}

void DistRow(const epc_row_t &row, const epc_dist_t &d)
{
    const size_t done = d.shift ? DistPixels<4>(row, d) : DistPixels<0>(row, d);
    if (done < row.n)
        epc_dist_row_plain(RestOf(row, done), d);
}

// Indices become what stands there. A pass of its own: what was just stored as a vector is slow to come back
// in parts.
HWY_INLINE void LookUp(uint16_t *dist, const uint16_t *table, size_t n)
{
#pragma GCC unroll 8
    for (size_t x = 0; x < n; x++)
        dist[x] = table[dist[x]];
}

// Distances by a table over the phases.
template <int shift> HWY_INLINE size_t GlobalPixels(const epc_row_t &row, const epc_dist_t &d)
{
    const DH dh;
    const size_t lanes = hn::Lanes(dh);
    const VH base = hn::Set(dh, static_cast<uint16_t>(d.base)), turn = hn::Set(dh, uint16_t{PHASE_TURN - 1});
    const VH none = hn::Set(dh, uint16_t{PHASE_TURN});
    size_t x = 0;
    for (; x + lanes <= row.n; x += lanes) {
        const Phases p = RunPixels<shift>(row, x, base);
        hn::StoreU(hn::IfThenElse(p.valid, hn::And(p.phase, turn), none), dh, row.dist + x);
    }
    LookUp(row.dist, d.phase_table, x);
    return x;
}

void GlobalRow(const epc_row_t &row, const epc_dist_t &d)
{
    const size_t done = d.shift ? GlobalPixels<4>(row, d) : GlobalPixels<0>(row, d);
    if (done < row.n)
        epc_global_row_plain(RestOf(row, done), d);
}

// What turns a phase into whole millimetres by the line of its pixel.
struct Line {
    hn::Vec<DF> tc, off;
    VH twice_dmax; // a range below 2^15, in each second lane; 0 in the others

    // Not a number, and what 32 bits don't hold, become something far away, or 0.
    HWY_INLINE VI Mm(VI phase, const float *slope, const float *offset) const
    {
        const DI di;
        const DF df;
        const DH dh;
        // The division by 32768 goes toward zero, and so by magnitudes. The whole part of one stands in the
        // lower bits once 2^23 is added.
        const auto p = hn::Sub(hn::ConvertTo(df, phase), tc);
        const auto steps = hn::Add(hn::Floor(hn::Abs(p)), hn::Set(df, 0x1p+23f));
        const VI d0 = hn::BitCast(di, hn::MulHigh(hn::BitCast(dh, steps), twice_dmax));
        const auto line = hn::Mul(hn::CopySignToAbs(hn::ConvertTo(df, d0), p), hn::LoadU(df, slope));
        return hn::ConvertTo(di, hn::Add(hn::Add(line, hn::LoadU(df, offset)), off));
    }
};

// Indices into the table from 1 on, 0 for an invalid pixel, as far as the table reaches: up to a vector in
// which a pixel lies outside.
template <int shift> HWY_INLINE size_t DrnuIndices(const epc_row_t &row, const epc_dist_t &d)
{
    const DS ds;
    const DI di;
    const DH dh;
    const DF df;
    const size_t lanes = hn::Lanes(dh), half = lanes / 2;
    const VH base = hn::Set(dh, static_cast<uint16_t>(d.base)), turn = hn::Set(dh, uint16_t{PHASE_TURN - 1});
    const Line line = {hn::Set(df, d.tc), hn::Set(df, static_cast<float>(d.off)),
                       hn::BitCast(dh, hn::Set(di, 2 * d.dmax))};
    // Clamping is symmetrical to 0, and so the table's middle goes there.
    const VI middle = hn::Set(di, d.after_table.lo - 1 + 32768);
    const VH sign = hn::Set(dh, uint16_t{32768}), one = hn::Set(dh, uint16_t{1});
    const VH last = hn::Set(dh, static_cast<uint16_t>(d.after_table.n - 1));
    size_t x = 0;
    for (; x + lanes <= row.n; x += lanes) {
        const Phases p = RunPixels<shift>(row, x, base);
        const VH phase = hn::And(p.phase, turn);
        const VI lower = line.Mm(hn::PromoteTo(di, hn::LowerHalf(phase)), row.slope + x, row.offset + x);
        const VI upper = line.Mm(hn::PromoteTo(di, hn::UpperHalf(hn::Half<DH>(), phase)),
                                 row.slope + x + half, row.offset + x + half);
        const VS packed = PackInOrder(ds, hn::Sub(lower, middle), hn::Sub(upper, middle));
        const VH index = hn::Xor(hn::BitCast(dh, packed), sign), place = hn::Sub(index, one);
        const auto outside = hn::AndNot(hn::Eq(hn::Min(place, last), place), p.valid);
        if (HWY_UNLIKELY(!hn::AllFalse(dh, outside)))
            break;
        hn::StoreU(hn::IfThenElseZero(p.valid, index), dh, row.dist + x);
    }
    LookUp(row.dist, d.after_table.table - 1, x);
    return x;
}

void DrnuRow(const epc_row_t &row, const epc_dist_t &d)
{
    const size_t lanes = hn::Lanes(DH());
    epc_row_t rest = row;
    while (rest.n >= lanes) {
        rest = RestOf(rest, d.shift ? DrnuIndices<4>(rest, d) : DrnuIndices<0>(rest, d));
        if (rest.n < lanes)
            break;
        epc_row_t outside = rest;
        outside.n = lanes;
        epc_drnu_row_plain(outside, d);
        rest = RestOf(rest, lanes);
    }
    epc_drnu_row_plain(rest, d);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace {
HWY_EXPORT(DistRow);
HWY_EXPORT(GlobalRow);
HWY_EXPORT(DrnuRow);

bool _vectors(const epc_row_t &row, const epc_dist_t &d)
{
    return simd_enabled() && d.samples == EPC_SAMPLES_4DCS && !row.gray;
}
} // namespace

void epc_dist_row(const epc_row_t &row, const epc_dist_t &d)
{
    if (_vectors(row, d) && d.dmax < 65536)
        HWY_DYNAMIC_DISPATCH(DistRow)(row, d);
    else
        epc_dist_row_plain(row, d);
}

void epc_global_row(const epc_row_t &row, const epc_dist_t &d)
{
    if (_vectors(row, d) && d.phase_table)
        HWY_DYNAMIC_DISPATCH(GlobalRow)(row, d);
    else
        epc_global_row_plain(row, d);
}

void epc_drnu_row(const epc_row_t &row, const epc_dist_t &d)
{
    // Temperature terms and ranges that are no camera's would leave 32 bits.
    if (_vectors(row, d) && d.after_table.n - 1 < 65534 && d.dmax < 32768 && std::fabs(d.tc) < 30000.0f)
        HWY_DYNAMIC_DISPATCH(DrnuRow)(row, d);
    else
        epc_drnu_row_plain(row, d);
}
#endif
