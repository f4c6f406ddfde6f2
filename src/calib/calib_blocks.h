// The walk over the blocks of one calibration file, and what each kind of block does to the result.
#pragma once

#include "calib/calib_result.h"

struct calib_walk_t {
    tqcam_param_t *param;
    int i; // block in hand; the stream stands at its first byte
    calib_result_t *res;
    uint32_t target; // wanted frequency, 0 for any; the loaded block's from when one was taken
    bool taken;      // a DRNU block was taken
    uint32_t *freq_list;
    int32_t freq_room, freq_cnt;
};

// Each reads the block in hand. False when it can't be read or computed: the load then fails. A block that
// isn't wanted or makes no sense without harm is passed over, and true.
bool calib_load_drnu_block(calib_walk_t *walk);
bool calib_load_temp_block(calib_walk_t *walk);
bool calib_load_lens_block(calib_walk_t *walk);
