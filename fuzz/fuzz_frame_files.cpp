// Loads the input as each kind of frame file, again and again until nothing comes.
#include "fuzz_input.h"
#include "tqcam.h"

void fuzz(fuzz_input in)
{
    const memory_file file(in);
    float f32[64];
    uint16_t u16[64];
    int w, h, planes;
    char tag[16];
    for (const int kind : {0, 1, 2}) {
        lseek(file.fd, 0, SEEK_SET);
        int n = 1; // values delivered
        // Each image takes a byte at least, so that as many calls must come to the end.
        for (size_t i = 0; i <= in.size && n != 0; i++) {
            n = kind == 0   ? tqcam_frame_load_distance(file.fd, f32, 64, &w, &h)
                : kind == 1 ? tqcam_frame_load_gray(file.fd, f32, 64, &w, &h)
                            : tqcam_frame_load_raw(file.fd, u16, 64, &w, &h, &planes, tag, sizeof tag);
            require(n >= 0 && n <= 64);
        }
        require(n == 0);
    }
}
