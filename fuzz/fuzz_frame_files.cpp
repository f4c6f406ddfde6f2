// Loads the input as each kind of frame file, again and again until nothing comes.
#include <unistd.h>

#include "memory_file.h"
#include "tqcam.h"

// load(fd) returns the values delivered, at most 64.
template <typename F> static void load_all(const memory_file &file, size_t size, F load)
{
    lseek(file.fd(), 0, SEEK_SET);
    // Each image takes a byte at least, so that as many calls must come to the end.
    for (size_t i = 0; i <= size; i++) {
        const int n = load(file.fd());
        if (n < 0 || n > 64)
            std::abort();
        if (n == 0)
            return;
    }
    std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const memory_file file(data, size);
    float f32[64];
    uint16_t u16[64];
    int w, h, planes;
    char tag[16];
    load_all(file, size, [&](int fd) { return tqcam_frame_load_distance(fd, f32, 64, &w, &h); });
    load_all(file, size, [&](int fd) { return tqcam_frame_load_gray(fd, f32, 64, &w, &h); });
    load_all(file, size,
             [&](int fd) { return tqcam_frame_load_raw(fd, u16, 64, &w, &h, &planes, tag, sizeof tag); });
    return 0;
}
