// The two temperatures of a frame header: board (CB) and illumination (IB), tenths of a degree. Sensors
// glitch, and a wrong temperature shifts every distance, so that jumps and impossible pairs are replaced.
#pragma once

#include <cstdint>

#include "util/relaxed.h"

inline constexpr int TEMP_RING_NUM = 7;

struct temp_state_t {
    int16_t cb_ring[TEMP_RING_NUM] = {}, ib_ring[TEMP_RING_NUM] = {}; // retrieval's thread alone
    uint16_t ring_index = 0;
    relaxed_t<uint16_t> ring_full;
    relaxed_t<int16_t> temp_cb, temp_ib; // as accepted last
    relaxed_t<uint64_t> monitor_ms;      // of the last report; 0: none yet
};

struct temp_limits_t {
    int16_t ib_max;  // highest plausible illumination temperature
    int16_t gap_max; // largest plausible difference of the two
};

// Keeps the last seven values and, once it has them, replaces one that departs from their median by more than
// ten degrees. Lines go out under the name of the caller.
void temp_filter(temp_state_t *t, int16_t *cb, int16_t *ib, const char *caller);

// Accepts a pair into temp_cb and temp_ib. An implausible illumination temperature becomes ten degrees below
// the board's, which is said when that changes what is stored; hdr_ib is the header's value, for the line.
void temp_accept(temp_state_t *t, int16_t cb, int16_t ib, int16_t hdr_ib, const temp_limits_t &limits,
                 const char *caller);

// A new capture begins: the rings fill anew, and the next frame reports.
void temp_restart(temp_state_t *t);
