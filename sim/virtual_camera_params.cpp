#include "virtual_camera_params.h"

#include <algorithm>
#include <cstring>

namespace {

enum : uint8_t {
    ID_MODE = 0,
    ID_FREQ = 1,
    ID_VENDOR = 2,
    ID_PRODUCT = 3,
    ID_LIMITS = 4,
    ID_SERIAL = 5,
    ID_VERSION = 6,
    ID_CHIP = 7,
    ID_ROI = 9,
    ID_FORMAT = 10,
    ID_FPS = 12,
    ID_INTG1 = 13,
    ID_INTG2 = 16,
    ID_SYS_CALIB = 18,
    ID_DUAL_FREQ = 21,
};

enum : uint32_t { INTG_AUTO_ON = 65535, INTG_AUTO_OFF = 65534 };

void _put(vcam_params_t *params, uint8_t id, uint8_t len,
          std::initializer_list<std::pair<uint32_t, int>> words)
{
    vcam_param_t &p = params->item[id];
    p = {len, {}};
    size_t at = 0;
    for (const auto &[value, bytes] : words)
        for (int b = 0; b < bytes; b++)
            p.value[at++] = static_cast<uint8_t>(value >> 8 * b);
}

void _put_text(vcam_params_t *params, uint8_t id, const char *text)
{
    vcam_param_t &p = params->item[id];
    p = {static_cast<uint8_t>(std::min(strlen(text), p.value.size())), {}};
    memcpy(p.value.data(), text, p.len);
}

// The number of at most 4 bytes at an offset; bytes that were not given are 0.
uint32_t _number(const uint8_t *value, uint8_t len, size_t at = 0)
{
    uint32_t v = 0;
    for (size_t b = 0; b < 4 && at + b < len; b++)
        v |= static_cast<uint32_t>(value[at + b]) << 8 * b;
    return v;
}

uint32_t _number_of(const vcam_params_t &params, uint8_t id, size_t at = 0)
{
    return _number(params.item[id].value.data(), params.item[id].len, at);
}

bool _freq_ok(uint32_t freq)
{
    return freq >= 1000000 && freq <= 200000000;
}

} // namespace

void vcam_params_init(vcam_params_t *params, const sim_config_t &sim, const sim_identity_t &id)
{
    const sim_camera_row_t &row = *sim.camera;
    *params = {};
    _put(params, ID_MODE, 4, {{0, 4}});
    _put(params, ID_FREQ, 4, {{sim.freq0, 4}});
    _put_text(params, ID_VENDOR, SIM_VENDOR);
    _put_text(params, ID_PRODUCT, row.product);
    _put(params, ID_LIMITS, 12,
         {{row.width, 2}, {row.height, 2}, {2, 2}, {row.max_fps, 2}, {row.max_intg_us, 2}});
    _put(params, ID_SERIAL, 12, {{id.serial[0], 4}, {id.serial[1], 4}, {id.serial[2], 4}});
    _put(params, ID_VERSION, 8, {{id.hardware, 2}, {id.software, 2}, {id.boot, 2}});
    _put(params, ID_CHIP, 6, {{id.pid, 2}, {id.cid, 2}, {id.wid, 2}});
    _put(params, ID_ROI, 13, {{0, 2}, {row.height - 1, 2}, {0, 2}, {row.width - 1, 2}});
    _put(params, ID_FORMAT, 4, {{sim.format, 4}});
    _put(params, ID_FPS, 4, {{sim.fps, 4}});
    _put(params, ID_INTG1, 4, {{sim.intg_us, 4}});
    _put(params, ID_INTG2, 4, {{sim.intg2_us, 4}});
    _put(params, ID_SYS_CALIB, 17, {});
    _put(params, ID_DUAL_FREQ, 8, {{sim.freq0, 4}, {sim.freq1, 4}});
}

std::string vcam_param_set(vcam_params_t *params, const sim_config_t &sim, uint8_t id, const uint8_t *value,
                           uint8_t len)
{
    vcam_param_t &p = params->item[id];
    if (len < 1 || len > p.value.size())
        return "wrong length of parameter " + std::to_string(id);
    const uint32_t v = _number(value, len), v1 = _number(value, len, 4);
    const bool s_family = sim.camera->family == SIM_FAMILY_S;
    switch (id) {
    case ID_VENDOR:
    case ID_PRODUCT:
    case ID_LIMITS:
    case ID_SERIAL:
    case ID_VERSION:
    case ID_CHIP:
    case VCAM_PARAM_PACK:
        return "parameter " + std::to_string(id) + " is read only";
    case ID_FREQ:
        if (!_freq_ok(v))
            return "modulation frequency not supported";
        break;
    case ID_DUAL_FREQ:
        if (!_freq_ok(v) || (v1 != 0 && !_freq_ok(v1)))
            return "modulation frequency not supported";
        break;
    case ID_ROI:
        if (_number(value, len) != (sim.camera->height - 1) << 16 || v1 != (sim.camera->width - 1) << 16 ||
            _number(value, len, 8) != 0)
            return "only the whole image is supported";
        break;
    case ID_FORMAT:
        if (s_family ? sim_raw_s_format(v) == nullptr : sim_raw_e_planes(v) == 0)
            return "frame format not supported";
        break;
    case ID_FPS:
        if (v == 0)
            return {};
        if (v > sim.camera->max_fps)
            return "frame rate not supported";
        break;
    case ID_INTG1:
        if ((v & 0xFFFF) == INTG_AUTO_ON || (v & 0xFFFF) == INTG_AUTO_OFF)
            return s_family ? "" : "no automatic integration time";
        if (len == 8) { // both times
            if (v == 0 || v > 65535 || v1 > 65535)
                return "integration time not supported";
            _put(params, ID_INTG1, 4, {{v, 4}});
            _put(params, ID_INTG2, 4, {{v1, 4}});
            return {};
        }
        if ((v & 0xFFFF) == 0)
            return "integration time not supported";
        _put(params, ID_INTG1, 4, {{v & 0xFFFF, 4}});
        return {};
    case ID_INTG2:
        _put(params, ID_INTG2, 4, {{v & 0xFFFF, 4}});
        return {};
    default:
        break;
    }
    p = {len, {}};
    memcpy(p.value.data(), value, len);
    return {};
}

uint8_t vcam_param_get(const vcam_params_t &params, uint8_t id, uint8_t value[18])
{
    memcpy(value, params.item[id].value.data(), params.item[id].value.size());
    return params.item[id].len;
}

uint32_t vcam_params_fps(const vcam_params_t &params)
{
    return std::max(1u, _number_of(params, ID_FPS));
}

uint32_t vcam_params_mode(const vcam_params_t &params)
{
    return _number_of(params, ID_MODE);
}

sim_config_t vcam_params_config(const vcam_params_t &params, const sim_config_t &sim)
{
    sim_config_t cfg = sim;
    const bool s_family = sim.camera->family == SIM_FAMILY_S;
    cfg.format = _number_of(params, ID_FORMAT);
    const sim_s_format_t *s_format = s_family ? sim_raw_s_format(cfg.format) : nullptr;
    const bool dual = s_format != nullptr && s_format->dual;
    cfg.freq0 = dual ? _number_of(params, ID_DUAL_FREQ) : _number_of(params, ID_FREQ);
    cfg.freq1 = 0;
    if (dual)
        cfg.freq1 = _number_of(params, ID_DUAL_FREQ, 4) != 0 ? _number_of(params, ID_DUAL_FREQ, 4) : 40000000;
    cfg.fps = vcam_params_fps(params);
    cfg.intg_us = _number_of(params, ID_INTG1);
    const bool hdr = s_family ? cfg.format == SIM_S_FMT_IQ_HDR : cfg.format == SIM_E_FMT_4DCS;
    cfg.intg2_us = hdr ? _number_of(params, ID_INTG2) : 0;
    return cfg;
}
