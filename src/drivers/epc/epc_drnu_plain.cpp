// Distance corrected by a slope and an offset of each pixel. What follows the line depends on the whole
// millimetre alone and is looked up where the table reaches.
#include <algorithm>
#include <cmath>

#include "drivers/epc/epc_samples.h"

// Phase less the temperature correction, cut to a whole one, as millimetres.
struct drnu_any_t {
    int64_t dmax;
    float tc;
    float operator()(int32_t phase) const
    {
        return static_cast<float>(to_i32(static_cast<float>(phase) - tc) * dmax / PHASE_TURN);
    }
};

// The same where neither the conversion nor the product can leave 32 bits, as with every sound calibration.
struct drnu_small_t {
    int32_t dmax;
    float tc;
    static bool serves(int64_t dmax, float tc) { return dmax < 32768 && std::fabs(tc) <= PHASE_TURN; }
    float operator()(int32_t phase) const
    {
        return static_cast<float>(static_cast<int32_t>(static_cast<float>(phase) - tc) * dmax / PHASE_TURN);
    }
};

// Outside the table; apart, so that it takes no registers from the loop.
[[gnu::noinline]] static uint16_t _beyond_table(int32_t mm, const epc_after_t &a)
{
    return epc_after(mm, a);
}

static constexpr uint16_t NO_PHASE = 0xFFFF;

static constexpr size_t BLOCK = 32;

// The lines of n pixels. Where n is known the compiler takes several at once.
template <class Mm>
[[gnu::always_inline]] inline void _lines(float *mm, const uint16_t *phase, const float *slope,
                                          const float *offset, float off, const Mm &mm_of, size_t n)
{
    for (size_t x = 0; x < n; x++)
        mm[x] = mm_of(phase[x] & (PHASE_TURN - 1)) * slope[x] + offset[x] + off; // NO_PHASE is any
}

// Passes over a row: the chain from samples to distance is too long to overlap with the next pixels'.
template <class Mm> static void _drnu_row(const epc_row_t &row, const epc_dist_t &d, const Mm mm_of)
{
    epc_dist_t phases = d;
    phases.invalid = NO_PHASE;
    epc_row_by_form(row, phases, [](int32_t phase, size_t) { return static_cast<uint16_t>(phase); });

    const float off = static_cast<float>(d.off);
    const epc_after_table_t t = d.after_table;
    const float below = static_cast<float>(t.lo - 1);
    const float above = t.n ? static_cast<float>(t.lo + int64_t{t.n}) : below;
    for (size_t at = 0; at < row.n; at += BLOCK) {
        uint16_t *const dist = row.dist + at;
        const float *const slope = row.slope + at, *const offset = row.offset + at;
        const size_t n = std::min(BLOCK, row.n - at);
        float mm[BLOCK];
        if (n == BLOCK)
            _lines(mm, dist, slope, offset, off, mm_of, BLOCK);
        else
            _lines(mm, dist, slope, offset, off, mm_of, n);
        for (size_t x = 0; x < n; x++) {
            if (dist[x] == NO_PHASE)
                dist[x] = d.invalid;
            else if (mm[x] > below && mm[x] < above) // whole millimetres in the table
                dist[x] = t.table[static_cast<int32_t>(mm[x]) - t.lo];
            else
                dist[x] = _beyond_table(to_i32(mm[x]), d.after);
        }
    }
}

void epc_drnu_row_plain(const epc_row_t &row, const epc_dist_t &d)
{
    if (drnu_small_t::serves(d.dmax, d.tc))
        _drnu_row(row, d, drnu_small_t{d.dmax, d.tc});
    else
        _drnu_row(row, d, drnu_any_t{d.dmax, d.tc});
}
