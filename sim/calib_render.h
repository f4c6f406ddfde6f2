// Makes the calibration of a simulated camera: what it would see of walls at known distances, rendered from
// the same defects that spoil its frames, and what temperatures do to it.
//
// The images stand in the order in which rows leave the sensor, as the library's planes do, but for the
// oldest block heads of 320 x 240, which show them from top to bottom.
#pragma once

#include "calib_file_writer.h"
#include "camera_model.h"

typedef enum {
    SIM_CALIB_IMAGES, // reference images, from which the library computes each pixel's line
    SIM_CALIB_READY,  // the lines themselves
} sim_calib_kind_t;

typedef enum {
    SIM_CALIB_TEMP_NONE,
    SIM_CALIB_TEMP_SAMPLES, // a target at rest while the camera warms up
    SIM_CALIB_TEMP_COEFS,   // the coefficients themselves
} sim_calib_temp_t;

typedef struct sim_calib_plan_t {
    uint8_t ver, blk_ver; // container below 140 holds images alone
    sim_calib_kind_t kind;
    sim_calib_temp_t temp;
    std::vector<uint32_t> freqs; // Hz
    int images;                  // for each frequency, an even number from 4 to 126
    // The walls are flat, and their distance is that along the axis. Not for cameras whose rows come from the
    // middle: the library takes a plane's row for the row of the image when it turns depths into rays.
    bool flat_walls;
    bool lens;   // with a block of the lens
    uint32_t ts; // time stamp
} sim_calib_plan_t;

// What a camera would come with: current versions, images of the frequencies given (0 is left out),
// temperature samples and the lens.
sim_calib_plan_t sim_calib_plan(uint32_t freq0, uint32_t freq1);

sim_calib_file_t sim_calib_render(const sim_camera_t &cam, const sim_calib_plan_t &plan);
