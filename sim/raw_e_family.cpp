#include "raw_e_family.h"

namespace {
enum { PURPOSE_E_SAMPLES = 16 };
}

uint32_t sim_raw_e_planes(uint32_t format)
{
    switch (format) {
    case SIM_E_FMT_4DCS:
        return 4;
    case SIM_E_FMT_2DCS:
        return 2;
    case SIM_E_FMT_1DCS:
    case SIM_E_FMT_1DCS_B:
    case SIM_E_FMT_GRAY:
        return 1;
    default:
        return 0;
    }
}

uint32_t sim_raw_e_image_row(const sim_camera_row_t *row, uint32_t raw_row, uint32_t height)
{
    if (!row->rows_from_middle)
        return raw_row;
    const uint32_t half = height / 2, i = raw_row / 2;
    return raw_row % 2 == 0 ? half - 1 - i : half + i;
}

void sim_raw_e_make(const sim_camera_t &cam, const sim_field_t &field, uint32_t format, double second_gain,
                    uint64_t frame, std::vector<uint8_t> *raw)
{
    const uint32_t planes = sim_raw_e_planes(format), w = field.width, h = field.height;
    const uint32_t shift = format == SIM_E_FMT_4DCS ? cam.row->sample_shift : 0;
    sim_rng_t rng = sim_rng_stream(cam.seed, PURPOSE_E_SAMPLES, frame);
    raw->resize(static_cast<size_t>(planes) * w * h * 2);
    uint8_t *out = raw->data();

    for (uint32_t plane = 0; plane < planes; plane++) {
        for (uint32_t r = 0; r < h; r++) {
            const bool second = r % 4 >= 2;
            uint32_t k = plane; // the phase at which this row of this plane is sampled
            double gain = 1;
            if (format == SIM_E_FMT_4DCS)
                gain = second ? second_gain : 1;
            else
                k = 2 * plane + (second ? 1 : 0);
            const size_t first = static_cast<size_t>(sim_raw_e_image_row(cam.row, r, h)) * w;
            for (size_t i = first; i < first + w; i++) {
                double value = format == SIM_E_FMT_GRAY ? 0 : gain * (k % 2 == 0 ? field.c[i] : field.s[i]);
                if (k >= 2)
                    value = -value;
                const uint32_t sample =
                    sim_camera_sample(cam, static_cast<uint32_t>(i), value, gain * field.light[i], rng)
                    << shift;
                *out++ = static_cast<uint8_t>(sample);
                *out++ = static_cast<uint8_t>(sample >> 8);
            }
        }
    }
}
