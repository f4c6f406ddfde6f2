// Parameters, for the parts of the API that ask the device before it is open or inside a call of their own.
#pragma once

#include "tqcam.h"

// tqcam_param_batch_get without the test of the handle and without the count.
bool _tqcam_param_batch_get(tqcam_dev_t *dev, tqcam_param_item_t *items, int count);

// Words of a parameter's value, little-endian.
uint16_t param_u16(const tqcam_param_item_t &item, unsigned at);
uint32_t param_u32(const tqcam_param_item_t &item, unsigned at);
