// Single parameters of a device, and what drivers read from them.
#pragma once

#include <cstdint>
#include <cstring>

#include "tqcam.h"

// Parameter ids that only drivers use.
enum { PARAM_SYNC = 17, PARAM_SYS_CALIB = 18, PARAM_TIME = 19 };

// len is at most 18.
inline tqcam_param_item_t dev_param_item(uint32_t id, const void *value, uint8_t len)
{
    tqcam_param_item_t item = {};
    item.param_id = id;
    item.param_len = len;
    memcpy(item.value, value, len);
    return item;
}
inline bool dev_param_set(tqcam_dev_t *dev, uint32_t id, const void *value, uint8_t len)
{
    const tqcam_param_item_t item = dev_param_item(id, value, len);
    return tqcam_param_batch_set(dev, &item, 1);
}
inline bool dev_param_set_u32(tqcam_dev_t *dev, uint32_t id, uint32_t value)
{
    return dev_param_set(dev, id, &value, sizeof(value));
}

// Fills len bytes of value; what the device didn't bring is 0.
bool dev_param_get(tqcam_dev_t *dev, uint32_t id, void *value, uint8_t len);

// The system calibration that the device stores. False when it can't be read or holds none.
bool dev_sys_calib_get(tqcam_dev_t *dev, float *scale, float *offset);

// Tells the device the time.
void dev_time_set(tqcam_dev_t *dev);
