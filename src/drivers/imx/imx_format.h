// How the frames of the SONY family are laid out: sub-frames, each behind a block of the chip's own metadata.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tqcam.h"

enum {
    IMX_FMT_4DCS = 2,
    IMX_FMT_NONE = 8,
    IMX_FMT_1DCS = 10,
    IMX_FMT_GRAY_REF = 11,
    IMX_FMT_IQ = 13,
    IMX_FMT_IQ_DUAL = 14,
    IMX_FMT_HDR = 15,
    IMX_FMT_PACKED = 16,
    IMX_FMT_PACKED_DUAL = 17,
};
enum { IMX_FMT_BIT7 = 0x80 }; // of a dual format: the frequencies may come the other way round

struct imx_format_t {
    uint8_t code;      // bit 7 removed
    uint8_t subframes; // in the frame
    bool packed;       // 12-bit values, else 16-bit words
    bool dual;         // two frequencies
    uint8_t dcs;
};

// NULL for formats that aren't images. format is the frame's own, with bit 7.
const imx_format_t *imx_format_find(uint16_t format);

// Where the data of the sub-frames are. Sizes are 64-bit: width, height and metadata come from the camera.
struct imx_layout_t {
    uint64_t data; // bytes of a sub-frame's data
    uint64_t meta; // bytes of metadata in front of it
    uint64_t needs() const { return subframes * (data + meta); }
    const uint8_t *at(const void *raw, uint32_t subframe) const
    {
        return static_cast<const uint8_t *>(raw) + subframe * (data + meta) + meta;
    }
    uint64_t subframes;
};
imx_layout_t imx_layout_of(const imx_format_t &format, const tqcam_frame_info_t *info);

// The integration time that a frame's metadata report, in microseconds; 0 without metadata, 1 for a chip
// whose register map isn't known.
uint32_t imx_meta_intg_us(const uint8_t *raw, uint32_t len, uint32_t meta_size);
