// The frame-rate booster ("bfps"). A frame of four planes is four quarters taken one after the other, so that
// the quarters of two neighbouring frames make up frames in between: each is a quarter-frame newer than the
// one before it.
#pragma once

#include <cstdint>

#include "drivers/common/work_buf.h"
#include "tqcam.h"

// All of it belongs to the retrieval's thread.
struct booster_t {
    uint8_t bfps_en = 0;
    uint8_t bfps_dcs = 4;              // planes of a frame
    tqcam_frame_info_t bfps_info = {}; // of the frame cached last
    work_buf_t bfps_buf;               // four frames
    uint32_t bfps_size = 0;            // bytes of a frame in it
    uint32_t bfps_fill = 0;            // bytes held
    int32_t roll = 0;                  // bytes of the next frame that are new
};

// Appends a frame. A size that can't be cut in quarters of samples is not taken: false.
bool booster_cache(booster_t *b, const void *raw, const tqcam_frame_info_t *info);

// Is there a frame to be made without another one from the camera?
bool booster_has_data(const booster_t *b);

// Makes the next frame, of bfps_size bytes, from what is held.
void _feature_bfps_fill_data(booster_t *b, void *dst);
