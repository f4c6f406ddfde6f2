// Calibration files of a few pixels with a ready result, whose terms the test chooses.
#pragma once

#include <string>
#include <vector>

#include "calib_file_writer.h"

struct calib_block_t {
    uint32_t freq = 12000000, w = 8, h = 8;
    sim_calib_global_t global{};
    std::vector<float> slope{}, offset{}; // of each pixel; empty: 1 and 0
    std::vector<float> tcoef{};           // phase per degree; empty: no temperature block
    int16_t t_cal0 = 300, t_cal1 = 400;
    uint8_t fps = 31; // counts as 10

    // The same line for all pixels.
    calib_block_t &line(float s, float o)
    {
        slope.assign(size_t{w} * h, s);
        offset.assign(size_t{w} * h, o);
        return *this;
    }
};

inline void calib_add(sim_calib_file_t *file, const calib_block_t &c)
{
    calib_blk_info_t info = {};
    info.freq = c.freq;
    info.img_w = c.w;
    info.img_h = c.h;
    info.scale = 32768;
    info.t_cal0 = c.t_cal0;
    info.t_cal1 = c.t_cal1;
    info.fps = c.fps;
    const size_t n = size_t{c.w} * c.h;
    std::vector<float> planes = c.slope.empty() ? std::vector<float>(n, 1) : c.slope;
    const std::vector<float> offset = c.offset.empty() ? std::vector<float>(n, 0) : c.offset;
    planes.insert(planes.end(), offset.begin(), offset.end());
    sim_calib_add_result(*file, info, c.global, planes);
    if (!c.tcoef.empty()) {
        calib_temp_hdr_t hdr = {};
        hdr.freq = c.freq;
        sim_calib_add_temp_coefs(*file, hdr, c.tcoef);
    }
}

inline bool calib_write(const std::string &name, const std::vector<calib_block_t> &blocks,
                        uint32_t blk_ts = 1)
{
    sim_calib_file_t file = sim_calib_file(150, 142);
    file.hdr.blk_ts = blk_ts;
    for (const calib_block_t &c : blocks)
        calib_add(&file, c);
    return sim_calib_save(name, sim_calib_file_bytes(file));
}
