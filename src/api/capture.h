// The capture engine, as retrieval sees it.
#pragma once

#include "api/device.h"

// Takes up to max_frames ready frames (until_empty: all that are ready), asks the driver what they are and
// hands them to the running retrieval and to the frame-ready callback; a pending capture error goes to the
// error callback first. On the thread of a retrieval, with no lock held.
//
// The place of the frames in the retrieval's buffer is taken once: all frames of one call land there, and the
// retrieval keeps the last. Where they are to land behind each other takes one call each.
void _cap_handle_rdy_data(tqcam_dev_t *dev, uint32_t max_frames, bool until_empty, tqcam_get_req_t *req);
