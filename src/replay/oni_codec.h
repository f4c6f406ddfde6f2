// The "16zT" codec: 16-bit samples, delta coded against a table of the values in use.
#pragma once

#include <cstdint>

// How a block ended.
enum oni_codec_status_t : int {
    ONI_CODEC_OK = 0,
    ONI_CODEC_BAD_INPUT = 4, // NULL, cut short, or a sample outside the table
    ONI_CODEC_FULL = 5       // no room left for the output
};

// Decodes a block into samples. dst_size is in bytes and rounded down to even; *written receives the bytes
// written, also on failure.
oni_codec_status_t oni_codec_decode(const uint8_t *src, uint32_t src_size, void *dst, uint32_t dst_size,
                                    uint32_t *written);

// Encodes count samples, all of which must be below table_size. When a block ends in a run with a single
// sample behind it, the sample is written ahead of the run: that is the format's order, and it decodes as it
// stands. Fails with ONI_CODEC_BAD_INPUT on no samples, a sample outside the table or one whose index the
// format can't express, with ONI_CODEC_FULL when dst is too small.
oni_codec_status_t oni_codec_encode(const uint16_t *src, uint32_t count, uint32_t table_size, uint8_t *dst,
                                    uint32_t dst_size, uint32_t *written);
