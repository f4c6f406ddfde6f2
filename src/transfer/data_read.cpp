// Reads data of the camera into a file. The device side of this direction brings 12 bytes a block; the file
// gets the full blocks all the same.
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "log/log.h"
#include "transfer/data_actions.h"

constexpr uint32_t BLOCK_BYTES = 450, READ_MAX = 104857600;

int tqcam_bin_data_read(tqcam_ll_dev_t *dev, uint16_t type, const char *path)
{
    if (!dev)
        return -1;
    LOG_DEBUG("[%s]Get info\n");
    al_data_info_t info = {};
    if (!al_get_data_info(dev, static_cast<uint8_t>(type), &info))
        return -1;
    LOG_DEBUG("[%s]Version:%hu,type:%hu, addr:0x%x,data size:%d\n", info.version, info.type, info.addr,
              info.size);
    if (info.size > READ_MAX) { // all ones: nothing stored; a size beyond any flash is no size
        LOG_ERROR("[%s]No valid data to read, please check\n");
        return -1;
    }
    FILE *file = std::fopen(path ? path : "calib.bin", "wb+");
    if (!file) {
        LOG_ERROR("[%s]File open failed\n");
        return -1;
    }
    bool written = true;
    uint8_t block[BLOCK_BYTES] = {};
    for (uint32_t remain = info.size; remain > 0 && written;) {
        const uint32_t bytes = remain > BLOCK_BYTES ? BLOCK_BYTES : remain;
        // A device that doesn't know this command still answers others; one that is gone ends the reading.
        if (!al_get_data_payload(dev, block, bytes) &&
            !al_get_data_info(dev, static_cast<uint8_t>(type), &info))
            written = false;
        else
            written = std::fwrite(block, 1, bytes, file) == bytes;
        remain -= bytes;
    }
    return std::fclose(file) == 0 && written ? 1 : -1;
}
