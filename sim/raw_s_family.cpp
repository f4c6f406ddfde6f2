#include "raw_s_family.h"

#include <algorithm>
#include <cmath>

namespace {

enum { PURPOSE_S_SAMPLES = 32 };

constexpr sim_s_format_t FORMATS[] = {
    {SIM_S_FMT_4DCS, 4, false, false},      {SIM_S_FMT_1DCS, 1, false, false},
    {SIM_S_FMT_IQ, 2, false, false},        {SIM_S_FMT_IQ_DUAL, 2, false, true},
    {SIM_S_FMT_IQ_HDR, 2, false, false},    {SIM_S_FMT_PACKED, 2, true, false},
    {SIM_S_FMT_PACKED_DUAL, 4, true, true},
};

// The integration time in units of the chip's 120 MHz clock, in every third byte of its register dump, whose
// place follows from the id of the register map.
void _put_meta(uint8_t *meta, uint32_t size, const sim_camera_t &cam, uint32_t intg_us)
{
    std::fill_n(meta, size, uint8_t{0});
    if (size < SIM_S_META_MIN)
        return;
    const uint32_t map = cam.row->reg_map, first = map == 1110 ? 367 : 287;
    meta[16] = static_cast<uint8_t>(map >> 4);
    meta[19] = static_cast<uint8_t>((map & 15) << 4);
    const uint32_t ticks = (intg_us - 1) * 120;
    for (uint32_t i = 0; i < 4; i++)
        meta[first + 3 * i] = static_cast<uint8_t>(ticks >> (24 - 8 * i));
}

// One value of 11 bits with the bytes of its word swapped.
void _put_word(uint8_t *out, double value, bool usable)
{
    const int32_t v = sim_round(std::clamp(value, -1024.0, 1023.0));
    const uint32_t word = static_cast<uint32_t>(v & 0x7FF) << 4 | (usable ? 0 : 0x8000);
    out[0] = static_cast<uint8_t>(word >> 8);
    out[1] = static_cast<uint8_t>(word);
}

void _put_packed(uint8_t *out, size_t index, int32_t value)
{
    const uint32_t v = static_cast<uint32_t>(value) & 0xFFF;
    uint8_t *p = out + index / 2 * 3;
    if (index % 2 == 0) {
        p[0] = static_cast<uint8_t>(v);
        p[1] = static_cast<uint8_t>((p[1] & 0xF0) | v >> 8);
    } else {
        p[1] = static_cast<uint8_t>((p[1] & 0x0F) | v << 4);
        p[2] = static_cast<uint8_t>(v >> 4);
    }
}

// Four samples around 0, each at half of the amplitude: their differences are I and Q.
void _make_dcs(const sim_camera_t &cam, const sim_field_t &field, uint32_t plane, sim_rng_t &rng,
               uint8_t *out)
{
    for (size_t i = 0; i < field.c.size(); i++) {
        double value = plane % 2 == 0 ? field.c[i] : field.s[i];
        if (plane >= 2)
            value = -value;
        const bool usable = sim_camera_usable(cam, static_cast<uint32_t>(i), value, field.light[i]);
        _put_word(out + 2 * i, (value + sim_camera_noise(cam, field.light[i], rng)) / 2, usable);
    }
}

// I or Q of one exposure, a word each or packed.
void _make_iq(const sim_camera_t &cam, const sim_field_t &field, bool is_q, bool packed, double second_gain,
              sim_rng_t &rng, uint8_t *out)
{
    for (size_t i = 0; i < field.c.size(); i++) {
        const uint32_t pixel = static_cast<uint32_t>(i);
        const double peak = std::max(std::fabs(field.c[i]), std::fabs(field.s[i]));
        double gain = std::max(1.0, second_gain);
        if (!sim_camera_usable(cam, pixel, gain * peak, gain * field.light[i]))
            gain = std::min(1.0, second_gain);
        const bool usable = sim_camera_usable(cam, pixel, gain * peak, gain * field.light[i]);
        const double value =
            -gain * (is_q ? field.s[i] : field.c[i]) + sim_camera_noise(cam, gain * field.light[i], rng);
        if (packed)
            _put_packed(out, i, usable ? sim_round(std::clamp(value, -2048.0, 2047.0)) : 0);
        else
            _put_word(out + 2 * i, value / 2, usable);
    }
}

} // namespace

const sim_s_format_t *sim_raw_s_format(uint32_t format)
{
    for (const sim_s_format_t &f : FORMATS)
        if (f.code == format || (f.dual && (f.code | SIM_S_FMT_SWAPPED) == format))
            return &f;
    return nullptr;
}

uint32_t sim_raw_s_meta_intg(uint32_t meta_size, uint32_t intg_us)
{
    return meta_size < SIM_S_META_MIN ? 0 : intg_us;
}

void sim_raw_s_make(const sim_camera_t &cam, const sim_field_t &field0, const sim_field_t &field1,
                    const sim_s_frame_cfg_t &cfg, std::vector<uint8_t> *raw)
{
    const sim_s_format_t *fmt = sim_raw_s_format(cfg.format);
    const size_t n = static_cast<size_t>(field0.width) * field0.height;
    const size_t bytes = fmt->packed ? n * 3 / 2 : n * 2;
    sim_rng_t rng = sim_rng_stream(cam.seed, PURPOSE_S_SAMPLES, cfg.frame);
    raw->resize(fmt->subframes * (cfg.meta_size + bytes));

    const bool first_leads = (cfg.format & SIM_S_FMT_SWAPPED) != 0 && cfg.freq0 >= cfg.freq1;
    for (uint32_t k = 0; k < fmt->subframes; k++) {
        uint8_t *meta = raw->data() + k * (cfg.meta_size + bytes), *out = meta + cfg.meta_size;
        _put_meta(meta, cfg.meta_size, cam, cfg.intg_us);
        bool second = false; // frequency of this sub-frame
        if (fmt->code == SIM_S_FMT_PACKED_DUAL)
            second = first_leads == (k >= 2);
        else if (fmt->dual)
            second = cfg.frame % 2 != 0;
        const sim_field_t &field = second ? field1 : field0;
        if (fmt->code == SIM_S_FMT_4DCS || fmt->code == SIM_S_FMT_1DCS)
            _make_dcs(cam, field, k, rng, out);
        else
            _make_iq(cam, field, k % 2 != 0, fmt->packed,
                     fmt->code == SIM_S_FMT_IQ_HDR ? cfg.second_gain : 1.0, rng, out);
    }
}
