// A camera of a few pixels whose errors are known: every pixel measures (true - offset) / slope.
#pragma once

#include <cmath>
#include <vector>

#include "calib_file_writer.h"
#include "support/temp_dir.h"

struct tiny_camera_t {
    uint32_t w, h, freq = 12000000;
    std::vector<float> slope, offset;

    tiny_camera_t(uint32_t width, uint32_t height) : w(width), h(height), slope(w * h, 1), offset(w * h, 0) {}

    // Slopes and offsets that differ from pixel to pixel.
    void spread()
    {
        for (uint32_t p = 0; p < w * h; p++) {
            slope[p] = 1 + 0.01f * static_cast<float>(std::sin(p));
            offset[p] = 40 * static_cast<float>(std::cos(3.0 * p));
        }
    }

    double range() const { return 149896224000.0 / freq; }

    // What it shows of a wall at ref_mm with nc delay steps of 300 mm. Phases keep 16 bits, two turns.
    sim_calib_ref_t ref(double ref_mm, uint8_t nc = 0, uint32_t turn = 32768) const
    {
        sim_calib_ref_t out;
        out.ref_um = static_cast<int32_t>(ref_mm * 1000);
        out.nc = nc;
        for (uint32_t p = 0; p < w * h; p++) {
            const double measured = (ref_mm + 300 * nc - offset[p]) / slope[p];
            out.phase.push_back(static_cast<uint16_t>(std::lround(measured / range() * turn)));
        }
        return out;
    }

    calib_blk_info_t info() const
    {
        calib_blk_info_t i{};
        i.freq = freq;
        i.img_w = w;
        i.img_h = h;
        i.scale = 32768;
        i.intg = 700;
        i.t_cal0 = 312;
        i.t_cal1 = 405;
        i.fps = 25;
        return i;
    }

    // Walls from first_mm on, step_mm apart.
    std::vector<sim_calib_ref_t> walls(int n, double first_mm = 500, double step_mm = 700,
                                       uint32_t turn = 32768) const
    {
        std::vector<sim_calib_ref_t> out;
        for (int i = 0; i < n; i++)
            out.push_back(ref(first_mm + step_mm * i, 0, turn));
        return out;
    }

    // n delay steps at each distance; the phases of the first distance are more by shift.
    std::vector<sim_calib_ref_t> steps(int n, const std::vector<double> &distances, uint32_t turn = 32768,
                                       uint32_t shift = 0) const
    {
        std::vector<sim_calib_ref_t> out;
        for (double mm : distances)
            for (int i = 0; i < n; i++) {
                out.push_back(ref(mm, static_cast<uint8_t>(i), turn));
                for (auto &v : out.back().phase)
                    v = static_cast<uint16_t>(v + (mm == distances[0] ? shift : 0));
            }
        return out;
    }
};

// A result whose buffers are freed with it.
struct result_t : calib_result_t {
    result_t() : calib_result_t{} { calib_result_reset(this); }
    ~result_t() { calib_result_free(this); }
    result_t(const result_t &) = delete;
    result_t &operator=(const result_t &) = delete;
};

inline int32_t load(const sim_calib_file_t &file, uint32_t freq, calib_result_t *res)
{
    int32_t none = 0;
    sim_calib_save("calib.bin", sim_calib_file_bytes(file));
    calib_result_reset(res);
    return calib_load("calib.bin", freq, res, nullptr, &none);
}

// Saves and loads a file of one block of images.
inline int32_t load_images(const calib_blk_info_t &info, const std::vector<sim_calib_ref_t> &refs,
                           calib_result_t *res, int ver = 150, int blk_ver = 142,
                           const sim_calib_pinhole_t &lens = {})
{
    sim_calib_file_t file = sim_calib_file(static_cast<uint8_t>(ver), static_cast<uint8_t>(blk_ver));
    sim_calib_add_images(file, info, refs, lens);
    return load(file, 0, res);
}
