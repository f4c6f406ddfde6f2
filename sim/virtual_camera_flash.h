// The virtual camera's memory for firmware, calibration and data: an image is announced, its place erased,
// and then written packet by packet, each with a CRC and acknowledged by number.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

enum : uint8_t { VCAM_FLASH_FIRMWARE = 0, VCAM_FLASH_CALIB = 3 };
inline constexpr uint16_t VCAM_FLASH_NO_VERSION = 65535;

enum : uint16_t { // actions of the data commands
    VCAM_FLASH_INFO = 0,
    VCAM_FLASH_ANNOUNCE = 1,
    VCAM_FLASH_ACK = 4,
    VCAM_FLASH_SHORT_ACK = 5,
    VCAM_FLASH_ERASE = 7,
    VCAM_FLASH_READ = 17,
};

typedef struct vcam_image_t {
    uint16_t version;
    std::vector<uint8_t> bytes;
} vcam_image_t;

typedef struct vcam_flash_t {
    std::map<uint8_t, vcam_image_t> images;
    uint8_t type; // of the image under way
    uint16_t version;
    uint32_t size;
    std::vector<uint8_t> bytes;  // taken so far
    std::vector<uint8_t> packet; // a packet that came in parts
    uint32_t num;                // packets taken
    uint8_t status;
    uint32_t polls, polls_left; // of an erase
    size_t read_at;             // of the image that was last asked about
    uint8_t read_type;
} vcam_flash_t;

void vcam_flash_init(vcam_flash_t *flash, const std::vector<uint8_t> &pack);

// Polls that the next erase takes.
void vcam_flash_set_polls(vcam_flash_t *flash, uint32_t polls);

// A data command with what the host sent; reply gets what the host may read then. repeat shows the number of
// the ack before. Empty when done, else why not.
std::string vcam_flash_command(vcam_flash_t *flash, uint16_t action, const uint8_t *data, uint32_t len,
                               bool repeat, uint16_t firmware, std::vector<uint8_t> *reply);

// Bytes of the bulk OUT pipe. A packet that is wrong is not acknowledged.
void vcam_flash_write(vcam_flash_t *flash, const uint8_t *data, uint32_t len);

uint16_t vcam_flash_version(const vcam_flash_t &flash, uint8_t type);
std::vector<uint8_t> vcam_flash_image(const vcam_flash_t &flash, uint8_t type);

// The calibration pack, empty when there is none, and its head: 18 bytes, zeros without a pack. Returns 18.
const std::vector<uint8_t> &vcam_flash_pack(const vcam_flash_t &flash);
uint8_t vcam_flash_pack_head(const vcam_flash_t &flash, uint8_t head[18]);
