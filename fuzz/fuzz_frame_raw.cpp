// Loads a raw frame file from hostile bytes.
#include "frame_file.h"
#include "tqcam.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_frame_file(data, size, [](int fd) {
        uint16_t dst[64];
        int width, height, planes;
        char tag[16];
        return tqcam_frame_load_raw(fd, dst, 64, &width, &height, &planes, tag, sizeof tag);
    });
    return 0;
}
