// A lens record of any content, as a calibration or lens file may hold it, becomes a map whose every index is
// a pixel of the image.
#include "fuzz_input.h"
#include "tq_lens.h"

void fuzz(fuzz_input in)
{
    auto lens = in.take<tqcam_lens_param_t>();
    // Large images only cost time; sizes whose product wraps stay in.
    if ((uint64_t)lens.img_w * lens.img_h > 1 << 14 && (uint64_t)lens.img_w * lens.img_h <= 1 << 26)
        lens.img_w %= 128, lens.img_h %= 128;
    tq_calib_len_map_t map = {};
    tq_calib_len_init_map(&map, &lens);
    require(map.inited || !map.map);
    if (map.inited) {
        std::vector<uint16_t> image((size_t)map.n, 7);
        for (int i = 0; i < map.n; i++)
            require(map.map[i] == TQ_CALIB_LEN_NO_SOURCE || map.map[i] < (uint32_t)map.n);
        require(tq_calib_len_undistort_u16(&map, image.data(), map.n, image.data(), map.w, map.h, 0));
    }
    tq_calib_len_uninit_map(&map);
}
