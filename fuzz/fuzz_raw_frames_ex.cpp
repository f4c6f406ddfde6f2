// Unpacks the input as a raw frame with meta data: 4 bytes each of width, height and meta data length, 2 of
// the format and 2 that shorten the output, then the frame.
#include "api/device.h"
#include "fuzz_input.h"

void fuzz(fuzz_input in)
{
    static tqcam_dev_priv_t priv;
    priv.opened = 1;
    tqcam_dev_t dev = {};
    dev.priv = &priv;
    tqcam_frame_info_t info = {};
    info.width = in.take<uint32_t>();
    info.height = in.take<uint32_t>();
    info.meta_size = in.take<uint32_t>();
    info.frame_format = in.take<uint16_t>();
    const auto shorter = in.take<uint16_t>();
    const std::vector<uint8_t> src = in.take_bytes();
    // Exactly the room that a frame of this size takes, less what the input says.
    const uint64_t room =
        info.width * (uint64_t{24} + info.height * uint64_t{8}) * (info.frame_format == 37 ? 2 : 1) + 4;
    std::vector<uint8_t> dst(room < (1 << 20) && room > shorter ? room - shorter : 64);
    const int got = tqcam_get_raw_frames_ex(&dev, dst.data(), static_cast<uint32_t>(dst.size()), src.data(),
                                            static_cast<uint32_t>(src.size()), &info);
    require(got <= static_cast<int>(dst.size()));
}
