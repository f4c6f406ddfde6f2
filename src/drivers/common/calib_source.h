// Where calibration comes from when a device opens: a file beside the device's other files, or the device.
#pragma once

#include "tqcam.h"

// Is there a calibration file that is whole and not older than what the device holds? If not, asks the device
// for its own and looks again. Lines go out under the caller's name.
bool calib_source_ready(tqcam_dev_t *dev, const char *path, const char *caller);
