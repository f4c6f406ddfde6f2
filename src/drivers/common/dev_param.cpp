#include "drivers/common/dev_param.h"

#include <sys/time.h>

bool dev_param_get(tqcam_dev_t *dev, uint32_t id, void *value, uint8_t len)
{
    memset(value, 0, len);
    tqcam_param_item_t item = {};
    item.param_id = id;
    item.param_len = len;
    if (!tqcam_param_batch_get(dev, &item, 1))
        return false;
    memcpy(value, item.value, len);
    return true;
}

bool dev_sys_calib_get(tqcam_dev_t *dev, float *scale, float *offset)
{
    struct TQCAM_PACKED {
        uint32_t spare;
        float scale, offset;
        uint8_t spare2[4];
        uint8_t valid;
    } value;
    if (!dev_param_get(dev, PARAM_SYS_CALIB, &value, sizeof(value)) || !value.valid)
        return false;
    *scale = value.scale;
    *offset = value.offset;
    return true;
}

void dev_time_set(tqcam_dev_t *dev)
{
    timeval now;
    gettimeofday(&now, nullptr);
    const uint32_t value[2] = {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_usec) + 100};
    dev_param_set(dev, PARAM_TIME, value, sizeof(value));
}
