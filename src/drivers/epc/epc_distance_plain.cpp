// Uncalibrated distance: the phase as a part of the range.
#include "drivers/epc/epc_samples.h"

void epc_dist_row_plain(const epc_row_t &row, const epc_dist_t &d)
{
    const uint64_t dmax = static_cast<uint64_t>(d.dmax);
    const int32_t off = d.off;
    epc_row_by_form(row, d, [=](int32_t phase, size_t) {
        return static_cast<uint16_t>(static_cast<uint32_t>(phase) * dmax / PHASE_TURN +
                                     static_cast<uint32_t>(off));
    });
}
