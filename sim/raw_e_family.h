// Raw frames of the E family: planes of 16-bit words, each a 12-bit correlation sample around 2048.
//
// The sensor correlates the light with the modulation at four phases. With the phase p of the distance (one
// turn is the unambiguous range) and the amplitude a, plane k holds
//     0: 2048 + a cos p    1: 2048 + a sin p    2: 2048 - a cos p    3: 2048 - a sin p
// so that I = plane 2 - plane 0 and Q = plane 3 - plane 1 stand half a turn from p, which is what the decoder
// takes away. Rows leave the sensor from the middle out, two at a time. The interleaved formats share one
// exposure between row pairs: of four rows as they leave the sensor, the first two carry planes 0 and 2, the
// others planes 1 and 3.
#pragma once

#include "camera_model.h"

enum {
    SIM_E_FMT_2DCS = 1,    // two planes, interleaved
    SIM_E_FMT_4DCS = 2,    // four planes
    SIM_E_FMT_1DCS = 4,    // one plane, interleaved
    SIM_E_FMT_1DCS_B = 10, // the same layout
    SIM_E_FMT_GRAY = 11,   // one plane without modulation: the reference of the background
};

// Planes of a frame; 0 for a format that the family doesn't have.
uint32_t sim_raw_e_planes(uint32_t format);

// Row of the image that leaves the sensor as row raw_row.
uint32_t sim_raw_e_image_row(const sim_camera_row_t *row, uint32_t raw_row, uint32_t height);

// Makes one frame. second_gain is the second integration time divided by the first: with a value other than
// 1 (four planes only) the last two of four rows are taken with the second time.
void sim_raw_e_make(const sim_camera_t &cam, const sim_field_t &field, uint32_t format, double second_gain,
                    uint64_t frame, std::vector<uint8_t> *raw);
