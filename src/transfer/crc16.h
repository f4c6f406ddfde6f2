// CRC-16 of data packets to the camera's flash: polynomial 0x1021, start 0, no reflection (XMODEM).
#pragma once

#include <cstddef>
#include <cstdint>

uint16_t crc16_xmodem(const uint8_t *data, size_t len);
