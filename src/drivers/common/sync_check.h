// Are illumination and sensor in step? If they are, planes half a turn apart add up to twice the zero level.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tqcam.h"

// raw: n bytes, taken as four planes; good when of both plane pairs more than 60 % of the pixels add up.
bool sync_is_good(const uint16_t *raw, size_t n, uint64_t pixels);

// Sends the device a correction (delay 0 lets it choose), at most one a second for all devices together. True
// when it was sent, whether or not the device took it: the frame at hand is then to be dropped.
bool sync_correct(tqcam_dev_t *dev, uint16_t sync_delay);
