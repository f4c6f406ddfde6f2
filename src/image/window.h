// What the windowed filters share: the border rule and the test of sizes.
#pragma once

#include "log/log.h"

// Outside the image the nearest pixel inside stands in.
static inline int window_clamp(int i, int n)
{
    return i < 0 ? 0 : i >= n ? n - 1 : i;
}

// Is the image large enough for a window? name is the public function, which the log names.
static inline bool window_size_ok(const char *name, int w, int h)
{
    if (w >= 2 && h >= 2)
        return true;
    LOG_AS(6, "ERR", name, "[%s] wrong parameter:w/h=%d/%d\n", w, h);
    return false;
}
