#include "drivers/common/temperature.h"

#include <cstdlib>

#include "log/log.h"
#include "tq_math.h"

static bool _is_jump(int16_t value, const int16_t *ring, int16_t *median)
{
    *median = static_cast<int16_t>(tq_math_get_median_i16(ring, TEMP_RING_NUM));
    return abs(value - *median) > 100;
}

void temp_filter(temp_state_t *t, int16_t *cb, int16_t *ib, const char *caller)
{
    t->cb_ring[t->ring_index] = *cb;
    t->ib_ring[t->ring_index] = *ib;
    if (++t->ring_index == TEMP_RING_NUM) {
        t->ring_index = 0;
        t->ring_full = 1;
    }
    if (!t->ring_full)
        return;
    int16_t median;
    if (_is_jump(*cb, t->cb_ring, &median)) {
        LOG_AS(5, "WRN", caller, "[%s]cb temp jump: Tcb in hdr=%d, Tcb filterd=%d\n", *cb, median);
        *cb = median;
    }
    if (_is_jump(*ib, t->ib_ring, &median)) {
        LOG_AS(5, "WRN", caller, "[%s]ib temp jump: Tib in hdr=%d, Tib filterd=%d\n", *ib, median);
        *ib = median;
    }
}

void temp_accept(temp_state_t *t, int16_t cb, int16_t ib, int16_t hdr_ib, const temp_limits_t &limits,
                 const char *caller)
{
    if (ib >= -300 && ib <= limits.ib_max && abs(ib - cb) <= limits.gap_max) {
        if (cb < -400 || cb > 1000)
            LOG_AS(5, "WRN", caller, "[%s]wrong CB temp %d detected: distance value may be wrong \n", cb);
    } else {
        ib = static_cast<int16_t>(cb - 100);
        if (t->temp_cb != cb || t->temp_ib != ib || ib == 0)
            LOG_AS(5, "WRN", caller,
                   "[%s]wrong IB temp %d detected: corrected to temp_cb - 10 (reported only once)\n", hdr_ib);
    }
    t->temp_cb = cb;
    t->temp_ib = ib;
}

void temp_restart(temp_state_t *t)
{
    t->ring_full = 0;
    t->monitor_ms = 0;
}
