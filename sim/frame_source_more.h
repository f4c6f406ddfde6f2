// Frame sources besides the live scene: a recording, a few frames over and over, and any source a few frames
// ahead on a thread of its own. None of them knows the truth.
#pragma once

#include "frame_source.h"

// What a recording says of its camera.
typedef struct sim_recording_t {
    sim_config_t cfg;           // the camera of the same chip with the recording's settings
    std::vector<uint8_t> calib; // the calibration file in it, empty when it carries none
} sim_recording_t;

// The frames of a recording, from the start again at its end. Settings can't be changed. NULL, with a
// sentence in error, when it can't be played.
sim_source_ptr_t sim_source_recording(const char *path, sim_recording_t *rec, std::string *error);

// The first n frames of a source over and over, so that no time goes into making them; they are made here.
// New settings, but for a frame rate, make them anew, as they are asked for.
sim_source_ptr_t sim_source_loop(sim_source_ptr_t source, const sim_config_t &cfg, uint32_t n);

// Keeps up to depth frames ready, from now on. New settings drop what was ready.
sim_source_ptr_t sim_source_ahead(sim_source_ptr_t source, uint32_t depth);
