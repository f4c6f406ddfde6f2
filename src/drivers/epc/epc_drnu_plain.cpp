// Distance corrected by a slope and an offset of each pixel. What follows the line depends on the whole
// millimetre alone and is looked up where the table reaches.
#include "drivers/epc/epc_samples.h"

void epc_drnu_row_plain(const epc_row_t &row, const epc_dist_t &d)
{
    const int64_t dmax = d.dmax;
    const float off = static_cast<float>(d.off);
    const epc_after_table_t t = d.after_table;
    epc_row_by_form(row, d, [&](int32_t phase, size_t x) {
        const int64_t d0 = to_i32(static_cast<float>(phase) - d.tc) * dmax / PHASE_TURN;
        const int32_t mm = to_i32(static_cast<float>(d0) * row.slope[x] + row.offset[x] + off);
        const uint32_t index = static_cast<uint32_t>(mm) - static_cast<uint32_t>(t.lo);
        return index < t.n ? t.table[index] : epc_after(mm, d.after);
    });
}
