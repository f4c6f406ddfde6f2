// Pictures of a calibration.
#pragma once

#include "calib_planes.h"

// The middle of a plane and the span that its picture shows: nearly all pixels lie in middle - span to
// middle + span.
struct PlotScale {
    float middle = 0, span = 0;
};

// One plane in colours: blue below the middle, white at it, red above; black where there is no number. Rows
// of 320 x 240 planes, which stand as the sensor delivers them, are put in the image's order. False when the
// file can't be written.
bool plot_plane(const std::string &path, const std::vector<float> &plane, uint32_t w, uint32_t h,
                PlotScale &scale);

// What is left of the distances behind the global line, dots for the images, and the wave fitted to it; one
// range from left to right, zero as a line in the middle. span_mm receives what the upper edge stands for.
bool plot_wave(const std::string &path, const CalibPlanes &planes, float &span_mm);
