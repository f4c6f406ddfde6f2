// Recognises a frame by its information, so that gray can be taken from the amplitudes of the distance image
// that was decoded before it.
#pragma once

#include <cstdint>
#include <cstring>

#include "tqcam.h"

inline constexpr uint32_t FRAME_HASH_NONE = 0xFFFFFFFF; // no frame has this one

// Fletcher-32 over the record's 50 words.
inline uint32_t frame_hash(const tqcam_frame_info_t *info)
{
    uint16_t words[sizeof(*info) / 2];
    static_assert(sizeof(words) == 100);
    memcpy(words, info, sizeof(words));
    uint32_t s1 = 0, s2 = 0;
    for (uint16_t word : words) {
        s1 += word;
        s2 += s1;
    }
    return (s2 % 65535) << 16 | s1 % 65535;
}
