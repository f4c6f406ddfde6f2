#include "drivers/common/frame_clock.h"

#include <ctime>

uint64_t clock_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000 + 1;
}

void frame_time(uint32_t packed, uint32_t *sec, uint32_t *usec)
{
    const time_t now = time(nullptr);
    tm date;
    gmtime_r(&now, &date);
    date.tm_hour = packed & 31;
    date.tm_min = packed >> 5 & 63;
    date.tm_sec = packed >> 11 & 63;
    *sec = static_cast<uint32_t>(timegm(&date));
    *usec = (packed >> 17) * 64;
}

void frame_rate_set(frame_rate_t *r, uint32_t fps)
{
    r->fps_set = static_cast<int32_t>(fps);
    r->fps_restart = 1;
}

void frame_rate_count(frame_rate_t *r)
{
    r->frames++;
    const uint64_t now = clock_ms();
    const bool restart = r->fps_restart;
    if (restart) {
        r->fps_restart = 0;
        r->fps_meas = static_cast<float>(r->fps_set);
    } else if (now - r->mark_ms >= 3000) {
        int64_t count = static_cast<int32_t>(r->frames - r->mark_frames);
        if (count < 0)
            count += 65536;
        // Without a mark, at the first frame of a run, there is no time to divide by.
        r->fps_meas = r->mark_ms ? static_cast<float>(1000.0 * count / (now - r->mark_ms)) : 0.0f;
    } else {
        return;
    }
    r->mark_frames = r->frames;
    r->mark_ms = now;
}
