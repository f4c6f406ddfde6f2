// The colour map that all colour functions of the process share.
#pragma once

#include "tq_cmap.h"

// tqcam_init prepares it and tqcam_uninit gives it up; in between any thread may use it.
tq_cmap_t *colour_map();
