// Time of frames: the stamp in their header, and the rate at which they come.
#pragma once

#include <cstdint>

#include "util/relaxed.h"

// Milliseconds of a clock that never steps back; above 0.
uint64_t clock_ms();

// The header's time word holds hour, minute, second and the fraction in units of 64 us; today's date (UTC)
// makes it a time since the epoch.
void frame_time(uint32_t packed, uint32_t *sec, uint32_t *usec);

struct frame_rate_t {
    relaxed_t<float> fps_meas;
    relaxed_t<uint8_t> fps_restart; // take fps_set and measure anew
    relaxed_t<int32_t> fps_set;
    uint32_t frames = 0, mark_frames = 0; // retrieval's thread alone
    relaxed_t<uint64_t> mark_ms;          // 0: no mark
};

void frame_rate_set(frame_rate_t *r, uint32_t fps);
void frame_rate_count(frame_rate_t *r); // a frame came; measures every three seconds
