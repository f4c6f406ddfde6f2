// Distance corrected by one slope and one offset for all pixels. Four planes go through floats and are
// wrapped before they are cut to millimetres; the other modes are whole millimetres from the start.
#include "drivers/epc/epc_samples.h"

static uint16_t _global_f32(int32_t phase, const epc_dist_t &d)
{
    const epc_after_t &a = d.after;
    const float mm = static_cast<float>(phase) * d.global_k + static_cast<float>(d.global_off);
    const float dmax = static_cast<float>(a.dmax);
    float r = periodic_correct(mm, a.periodic) * static_cast<float>(a.sys_k) / 32768.0f +
              static_cast<float>(a.sys_o);
    if (r < 0)
        r += dmax;
    if (r > dmax)
        r -= dmax;
    return static_cast<uint16_t>(to_i32(r));
}

static uint16_t _global_i32(int32_t phase, const epc_dist_t &d)
{
    const int64_t mm = phase * int64_t{d.dmax} / PHASE_TURN * d.slope_k / 1000 + d.global_off;
    const int32_t whole = static_cast<int32_t>(mm > INT32_MAX ? INT32_MAX : mm < INT32_MIN ? INT32_MIN : mm);
    return epc_after(whole, d.after);
}

uint16_t epc_global_mm(int32_t phase, const epc_dist_t &d)
{
    return d.samples == EPC_SAMPLES_4DCS ? _global_f32(phase, d) : _global_i32(phase, d);
}

void epc_global_row_plain(const epc_row_t &row, const epc_dist_t &d)
{
    if (d.phase_table)
        epc_row_by_form(row, d, [table = d.phase_table](int32_t phase, size_t) { return table[phase]; });
    else
        epc_row_by_form(row, d, [&](int32_t phase, size_t) { return epc_global_mm(phase, d); });
}
