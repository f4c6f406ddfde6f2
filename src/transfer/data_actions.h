// The actions of the data transfer: commands of type 0xCC that declare an image, erase, acknowledge and read.
// The link caps each wait at 2 seconds, so a device answers within that, whatever the time-outs say.
#pragma once

#include <cstdint>

#include "tqcam.h"

// What the device holds of a data type.
struct al_data_info_t {
    uint8_t type;
    uint16_t version;
    uint32_t size;
    uint32_t addr;
};

// How far the device has come.
struct al_ack_t {
    uint32_t num;   // packets accepted so far
    uint8_t status; // AL_STATUS_...
};

enum { AL_STATUS_READY = 1, AL_STATUS_ACCEPTED = 3, AL_STATUS_ERASING = 4 };
enum {
    AL_ACTION_INFO = 0,
    AL_ACTION_DECLARE = 1,
    AL_ACTION_ACK = 4,
    AL_ACTION_ERASE = 7,
    AL_ACTION_PAYLOAD = 17
};
enum { AL_TYPE_FIRMWARE = 0, AL_TYPE_IMAGE = 2, AL_TYPE_CALIB = 3, AL_TYPE_ERASE_ONLY = 255 };

bool al_get_data_info(tqcam_ll_dev_t *dev, uint8_t type, al_data_info_t *info);
int al_data_declare(tqcam_ll_dev_t *dev, uint8_t type, uint16_t version, uint32_t image_size);
int al_data_erase(tqcam_ll_dev_t *dev, uint8_t type, uint32_t image_size, uint32_t packet_size);
// 1, which becomes the result of a whole transfer, or -1.
int al_data_read_ack(tqcam_ll_dev_t *dev, al_ack_t *ack);
bool al_get_data_payload(tqcam_ll_dev_t *dev, uint8_t *buffer, uint32_t size);
