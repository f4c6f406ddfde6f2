// Images of every kind of a frame whose information may lie.
#pragma once

#include "../tests/support/link_camera.h"
#include "fuzz_input.h"

inline void decode_all(LinkCamera &camera, const std::vector<uint8_t> &raw, const tqcam_frame_info_t &info)
{
    const uint64_t pixels = uint64_t{info.width} * info.height;
    std::vector<uint16_t> image(pixels < 65536 ? pixels : 16);
    const auto room = static_cast<uint32_t>(2 * image.size()), bytes = static_cast<uint32_t>(raw.size());
    for (const int kind : {1, 2, 0, 2, 3}) {
        const int n =
            camera.ops()->frame_decode(camera.drv(), image.data(), room, kind, raw.data(), bytes, &info);
        require(n == -1 || static_cast<uint64_t>(n) == 2 * pixels);
    }
}
