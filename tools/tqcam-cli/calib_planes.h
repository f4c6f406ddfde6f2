// What the library makes of a block, for pictures: it keeps the planes to itself, so they are computed here
// once more from the file's bytes, by the same steps.
#pragma once

#include "calib_file.h"

struct CalibPoint {
    float mm, error; // true distance by the global line at the centre of the image, and what is left
};

struct CalibPlanes {
    float range_mm = 0;
    std::vector<float> slope, offset;           // pixel by pixel, rows as they leave the sensor
    float g_slope = 1, g_offset = 0;            // global line
    float amp = 0, omega = 0, pha = 0, ofs = 0; // periodic error
    float r_steps = 1, r_line = 1, r_wave = 1;  // of the global fits
    size_t bad = 0;                             // pixels that got the global line
    std::vector<CalibPoint> points;             // of the images
};

// The block must be whole and without problems of its own. False when it can't be used all the same.
bool calib_planes(const CalibFile &file, const CalibBlock &block, CalibPlanes &out);
