// Raw frames of the S family: sub-frames, each behind a block of the chip's own metadata.
//
// I and Q are signed, I = -a cos p and Q = -a sin p for the phase p of the distance and the amplitude a.
// Packed formats hold four 12-bit values in three 16-bit words, least significant first. The other formats
// hold one value a word: 11 bits in the middle, the bytes swapped, and bit 7 of the word as stored marks a
// value that can't be used. Packed pixels that can't be used are 0 in I and Q.
#pragma once

#include "camera_model.h"

enum {
    SIM_S_FMT_4DCS = 2,     // the four samples of the E family, around 0
    SIM_S_FMT_1DCS = 10,    // the first of them
    SIM_S_FMT_IQ = 13,      // I, Q at half the amplitude
    SIM_S_FMT_IQ_DUAL = 14, // the same, the frequencies by turns: the first one in even frames
    SIM_S_FMT_IQ_HDR = 15,  // as 13; the camera took each pixel from the longer time that didn't saturate it
    SIM_S_FMT_PACKED = 16,  // I, Q
    SIM_S_FMT_PACKED_DUAL = 17, // I, Q of the second frequency, then I, Q of the first
    SIM_S_FMT_SWAPPED = 0x80,   // added to a dual format: with freq0 >= freq1 the first frequency comes first
};

// Metadata in front of each sub-frame by default, and the least that tells the integration time.
inline constexpr uint32_t SIM_S_META_SIZE = 592, SIM_S_META_MIN = 588;

typedef struct sim_s_format_t {
    uint32_t code, subframes;
    bool packed, dual;
} sim_s_format_t;

// NULL for a format that the family doesn't have. Bit 7 counts for dual formats only.
const sim_s_format_t *sim_raw_s_format(uint32_t format);

typedef struct sim_s_frame_cfg_t {
    uint32_t format;
    uint32_t freq0, freq1;
    uint32_t intg_us;
    double second_gain; // second integration time divided by the first; SIM_S_FMT_IQ_HDR
    uint32_t meta_size;
    uint64_t frame;
} sim_s_frame_cfg_t;

// What the library reads from metadata of this size.
uint32_t sim_raw_s_meta_intg(uint32_t meta_size, uint32_t intg_us);

// Makes one frame from the exposures at the first and, in dual formats, at the second frequency.
void sim_raw_s_make(const sim_camera_t &cam, const sim_field_t &field0, const sim_field_t &field1,
                    const sim_s_frame_cfg_t &cfg, std::vector<uint8_t> *raw);
