// Unpacks the input as a raw frame with meta data: 4 bytes each of width, height and meta data length, 2 of
// the format and 2 that shorten the output, then the frame.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "api/device.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static tqcam_dev_t dev = [] {
        tqcam_dev_t made = {};
        made.priv = new tqcam_dev_priv_t();
        made.priv->opened = 1;
        return made;
    }();
    if (size < 16)
        return 0;
    tqcam_frame_info_t info = {};
    uint16_t shorter;
    memcpy(&info.width, data, 4);
    memcpy(&info.height, data + 4, 4);
    memcpy(&info.meta_size, data + 8, 4);
    memcpy(&info.frame_format, data + 12, 2);
    memcpy(&shorter, data + 14, 2);
    // Exactly the room that a frame of this size takes, less what the input says.
    const uint64_t room =
        info.width * (uint64_t{24} + info.height * uint64_t{8}) * (info.frame_format == 37 ? 2 : 1) + 4;
    const std::vector<uint8_t> src(data + 16, data + size);
    std::vector<uint8_t> dst(room < (1 << 20) && room > shorter ? room - shorter : 64);
    const int got = tqcam_get_raw_frames_ex(&dev, dst.data(), static_cast<uint32_t>(dst.size()), src.data(),
                                            static_cast<uint32_t>(src.size()), &info);
    if (got > static_cast<int>(dst.size()))
        std::abort();
    return 0;
}
