#include "drivers/imx/imx_format.h"

static constexpr imx_format_t FORMATS[] = {
    {IMX_FMT_4DCS, 4, false, false, 4},      {IMX_FMT_1DCS, 1, false, false, 1},
    {IMX_FMT_IQ, 2, false, false, 2},        {IMX_FMT_IQ_DUAL, 2, false, true, 4},
    {IMX_FMT_HDR, 2, false, false, 8},       {IMX_FMT_PACKED, 2, true, false, 2},
    {IMX_FMT_PACKED_DUAL, 4, true, true, 4},
};

const imx_format_t *imx_format_find(uint16_t format)
{
    for (const imx_format_t &f : FORMATS)
        if (f.code == (format & 0xFF7F))
            return &f;
    return nullptr;
}

imx_layout_t imx_layout_of(const imx_format_t &format, const tqcam_frame_info_t *info)
{
    const uint64_t n = uint64_t{info->width} * info->height;
    // Frames of sizes that no sensor has must not wrap these sums.
    const uint64_t pixels = n < (uint64_t{1} << 40) ? n : uint64_t{1} << 40;
    return {format.packed ? pixels * 3 / 2 : pixels * 2, info->meta_size, format.subframes};
}

uint32_t imx_meta_intg_us(const uint8_t *raw, uint32_t len, uint32_t meta_size)
{
    if (!raw || meta_size <= 587 || meta_size >= len)
        return 0;
    uint32_t first; // of four bytes, most significant first, every third byte of the register dump
    switch (raw[16] << 4 | raw[19] >> 4) { // id of the register map
    case 1110:
    case 1366:
        first = 367;
        break;
    case 1302:
    case 1304:
    case 1320:
        first = 287;
        break;
    default:
        return 1;
    }
    const uint32_t ticks = static_cast<uint32_t>(raw[first]) << 24 |
                           static_cast<uint32_t>(raw[first + 3]) << 16 |
                           static_cast<uint32_t>(raw[first + 6]) << 8 | raw[first + 9];
    return ticks / 120 + 1; // of a 120 MHz clock
}
