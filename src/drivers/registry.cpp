// The driver table and the search in it.
#include <cstdio>
#include <cstring>

#include "drivers/driver.h"
#include "log/log.h"

// Searched in this order.
static tqcam_drv_t _drv_table[] = {
    {"TI OP8241 chip driver", "T0", &op8241_ops, nullptr, nullptr},
    {"EPC chip driver", "E1", &epc_ops, nullptr, nullptr},
    {"EPC chip driver", "E2", &epc_ops, nullptr, nullptr},
    {"EPC chip driver", "E3", &epc_ops, nullptr, nullptr},
    {"SONY chip driver", "S1", &imx_ops, nullptr, nullptr},
    {"SONY chip driver", "S2", &imx_ops, nullptr, nullptr},
    {"SONY chip driver", "S3", &imx_ops, nullptr, nullptr},
    {"SONY IMX570 driver", "S570C4", &imx_ops, nullptr, nullptr},
    {"EPC chip driver", "E4", &epc_ops, nullptr, nullptr},
    {"EPC chip driver", "E5", &epc_ops, nullptr, nullptr},
};

// A product string reads "maker-chip-rest"; the chip word is compared whole.
tqcam_drv_t *tqcam_drv_find(tqcam_ll_dev_t *dev)
{
    if (!dev || !dev->dev)
        return nullptr;
    const tqcam_dev_t *handle = dev->dev;
    char product[sizeof(handle->product) + 1] = {}; // the device's text may fill its field to the last byte
    memcpy(product, handle->product, sizeof(handle->product));
    char maker[33], chip[33], rest[33];
    if (sscanf(product, "%32[^-]-%32[^-]-%32[^-]", maker, chip, rest) != 3)
        return nullptr;
    for (tqcam_drv_t &row : _drv_table) {
        if (strcmp(row.chip, chip) != 0)
            continue;
        const tqcam_version_t &v = handle->version;
        LOG_DEBUG("[%s] find driver: %s (device=%s [SW=%u,BT=%u,HW=%u])\n", row.desc, product, v.software,
                  v.boot, v.hardware);
        return &row;
    }
    return nullptr;
}
