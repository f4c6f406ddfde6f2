// Rows of four-plane frames on vectors: the uncalibrated distance and the one corrected for each pixel. Modes
// of fewer planes, a gray reference and ranges beyond 16 bits take the plain forms.
#include "drivers/epc/epc_kernels.h"

#include <cmath>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "drivers/epc/epc_rows_simd.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

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
void DrnuRow(const epc_row_t &row, const epc_dist_t &d)
{
    epc_drnu_row_plain(row, d);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

using DI = hn::ScalableTag<int32_t>;
using DU = hn::RebindToUnsigned<DI>;
using DF = hn::RebindToFloat<DI>;
using D16 = hn::Rebind<uint16_t, DI>;
using VI = hn::Vec<DI>;

struct Pixels {
    VI phase; // angle, without the base
    hn::Vec<DU> amp;
    hn::Mask<DI> valid;
};

HWY_INLINE VI LoadSamples(const uint16_t *p, int shift)
{
    return hn::ShiftRightSame(hn::PromoteTo(DI(), hn::LoadU(D16(), p)), shift);
}

HWY_INLINE Pixels LoadPixels(const epc_row_t &row, size_t x, int shift)
{
    const DI di;
    const VI p0 = LoadSamples(row.p[0] + x, shift), p1 = LoadSamples(row.p[1] + x, shift);
    const VI p2 = LoadSamples(row.p[2] + x, shift), p3 = LoadSamples(row.p[3] + x, shift);
    const VI least = hn::Min(hn::Min(p0, p1), hn::Min(p2, p3));
    const VI most = hn::Max(hn::Max(p0, p1), hn::Max(p2, p3));
    const auto valid = hn::And(hn::Gt(least, hn::Set(di, 1)), hn::Lt(most, hn::Set(di, 4094)));
    const VI i = hn::Sub(p2, p0), q = hn::Sub(p3, p1);
    const VI sum = hn::Add(hn::Mul(i, i), hn::Mul(q, q));
    return {PhaseAngle(di, i, q), hn::BitCast(DU(), hn::IfThenElseZero(valid, hn::ShiftRight<2>(sum))),
            valid};
}

HWY_INLINE void StorePixels(const epc_row_t &row, size_t x, const Pixels &p, VI dist, VI invalid)
{
    const VI out = hn::IfThenElse(p.valid, dist, invalid);
    hn::StoreU(hn::TruncateTo(D16(), hn::BitCast(DU(), out)), D16(), row.dist + x);
    hn::StoreU(p.amp, DU(), row.amp + x);
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

void DistRow(const epc_row_t &row, const epc_dist_t &d)
{
    const DI di;
    const size_t lanes = hn::Lanes(di);
    const VI base = hn::Set(di, d.base), turn = hn::Set(di, 32767);
    const VI dmax = hn::Set(di, d.dmax), off = hn::Set(di, d.off), invalid = hn::Set(di, d.invalid);
    size_t x = 0;
    for (; x + lanes <= row.n; x += lanes) {
        const Pixels p = LoadPixels(row, x, d.shift);
        const VI phase = hn::And(hn::Add(p.phase, base), turn);
        const auto mm = hn::ShiftRight<15>(hn::BitCast(DU(), hn::Mul(phase, dmax)));
        StorePixels(row, x, p, hn::Add(hn::BitCast(di, mm), off), invalid);
    }
    epc_dist_row_plain(RestOf(row, x), d);
}

void DrnuRow(const epc_row_t &row, const epc_dist_t &d)
{
    const DI di;
    const DF df;
    const size_t lanes = hn::Lanes(di);
    const VI base = hn::Set(di, d.base), turn = hn::Set(di, 32767);
    const VI dmax = hn::Set(di, d.dmax), invalid = hn::Set(di, d.invalid), zero = hn::Zero(di);
    const auto tc = hn::Set(df, d.tc), off = hn::Set(df, static_cast<float>(d.off));
    const epc_after_table_t t = d.after_table;
    HWY_ALIGN int32_t mm[HWY_MAX_BYTES / sizeof(int32_t)];
    size_t x = 0;
    for (; x + lanes <= row.n; x += lanes) {
        const Pixels p = LoadPixels(row, x, d.shift);
        const VI phase = hn::And(hn::Add(p.phase, base), turn);
        const VI steps = hn::ConvertTo(di, hn::Sub(hn::ConvertTo(df, phase), tc));
        // Division toward zero: what is negative is rounded up.
        const VI product = hn::Mul(steps, dmax);
        const VI up = hn::IfThenElseZero(hn::Lt(product, zero), turn);
        const VI d0 = hn::ShiftRight<15>(hn::Add(product, up));
        auto line = hn::Mul(hn::ConvertTo(df, d0), hn::LoadU(df, row.slope + x));
        line = hn::Add(hn::Add(line, hn::LoadU(df, row.offset + x)), off);
        line = hn::IfThenElseZero(hn::Eq(line, line), line); // not a number counts as 0
        hn::Store(hn::ConvertTo(di, line), di, mm);
        for (size_t k = 0; k < lanes; k++) {
            const uint32_t index = static_cast<uint32_t>(mm[k]) - static_cast<uint32_t>(t.lo);
            mm[k] = HWY_LIKELY(index < t.n) ? t.table[index] : epc_after(mm[k], d.after);
        }
        StorePixels(row, x, p, hn::Load(di, mm), invalid);
    }
    epc_drnu_row_plain(RestOf(row, x), d);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace {
HWY_EXPORT(DistRow);
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

void epc_drnu_row(const epc_row_t &row, const epc_dist_t &d)
{
    // Temperature terms and ranges that are no camera's would leave 32 bits.
    if (_vectors(row, d) && d.dmax < 32768 && std::fabs(d.tc) < 30000.0f)
        HWY_DYNAMIC_DISPATCH(DrnuRow)(row, d);
    else
        epc_drnu_row_plain(row, d);
}
#endif
