#include "transfer/crc16.h"

#include <array>

static constexpr std::array<uint16_t, 256> _make_table()
{
    std::array<uint16_t, 256> table{};
    for (unsigned byte = 0; byte < 256; byte++) {
        unsigned crc = byte << 8;
        for (int bit = 0; bit < 8; bit++)
            crc = (crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1;
        table[byte] = static_cast<uint16_t>(crc);
    }
    return table;
}

uint16_t crc16_xmodem(const uint8_t *data, size_t len)
{
    static constexpr std::array<uint16_t, 256> table = _make_table();
    uint16_t crc = 0;
    for (size_t i = 0; i < len; i++)
        crc = static_cast<uint16_t>((crc << 8) ^ table[(crc >> 8) ^ data[i]]);
    return crc;
}
