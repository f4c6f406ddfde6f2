// Loads a gray frame file from hostile bytes.
#include "frame_file.h"
#include "tqcam.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_frame_file(data, size, [](int fd) {
        float dst[64];
        int width, height;
        return tqcam_frame_load_gray(fd, dst, 64, &width, &height);
    });
    return 0;
}
