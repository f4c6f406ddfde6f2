// A lens record of any content, as a calibration or lens file may hold it, becomes a map whose every index is
// a pixel of the image.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tq_lens.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tqcam_lens_param_t lens = {};
    memcpy(&lens, data, size < sizeof(lens) ? size : sizeof(lens));
    // Large images only cost time; sizes whose product wraps stay in.
    if ((uint64_t)lens.img_w * lens.img_h > 1 << 14 && (uint64_t)lens.img_w * lens.img_h <= 1 << 26)
        lens.img_w %= 128, lens.img_h %= 128;

    tq_calib_len_map_t map = {};
    tq_calib_len_init_map(&map, &lens);
    if (map.inited) {
        std::vector<uint16_t> image((size_t)map.n, 7);
        for (int i = 0; i < map.n; i++)
            if (map.map[i] != TQ_CALIB_LEN_NO_SOURCE && map.map[i] >= (uint32_t)map.n)
                abort();
        if (!tq_calib_len_undistort_u16(&map, image.data(), map.n, image.data(), map.w, map.h, 0))
            abort();
    } else if (map.map) {
        abort();
    }
    tq_calib_len_uninit_map(&map);
    return 0;
}
