#include "frame_source.h"

#include <algorithm>

sim_config_t sim_config_default(const sim_camera_row_t *camera)
{
    sim_config_t cfg = {};
    cfg.camera = camera;
    cfg.scene = sim_scene_make(SIM_SCENE_ROOM);
    cfg.defects = sim_defects_noise(camera);
    cfg.seed = 1;
    cfg.format = camera->format;
    cfg.freq0 = camera->freq0;
    cfg.freq1 = camera->freq1;
    cfg.fps = std::min(camera->max_fps, 30u);
    cfg.intg_us = camera->intg_us;
    cfg.temp_cb = SIM_REF_TEMP_CB;
    cfg.temp_ib = SIM_REF_TEMP_IB;
    cfg.meta_size = camera->family == SIM_FAMILY_S ? SIM_S_META_SIZE : 0;
    cfg.start_sec = 12 * 3600;
    return cfg;
}

void sim_config_fit(sim_config_t *cfg)
{
    const double range = sim_range_mm(cfg->freq1 != 0 ? std::min(cfg->freq0, cfg->freq1) : cfg->freq0);
    sim_scene_t *scene = &cfg->scene;
    if (scene->kind == SIM_SCENE_RAMP)
        scene->distance_mm = range;
    else // the corners of the room are about twice as far as its wall
        scene->distance_mm = std::min(scene->distance_mm, range / 2);
    if (scene->kind == SIM_SCENE_RAMP || cfg->camera->family != SIM_FAMILY_S || scene->distance_mm <= 0)
        return;
    constexpr double wanted = 400; // amplitude of the wall, samples
    const double metres = scene->distance_mm / 1000;
    const double us = 500 * wanted * metres * metres / (cfg->camera->amp_1m * scene->reflectivity);
    cfg->intg_us = static_cast<uint32_t>(std::clamp(us, 10.0, static_cast<double>(cfg->camera->max_intg_us)));
}

bool sim_config_same(const sim_config_t &a, const sim_config_t &b)
{
    return a.format == b.format && a.freq0 == b.freq0 && a.freq1 == b.freq1 && a.fps == b.fps &&
           a.intg_us == b.intg_us && a.intg2_us == b.intg2_us;
}

std::string sim_config_check(const sim_config_t &cfg)
{
    const auto number = [](uint64_t v) { return std::to_string(v); };
    if (cfg.camera == nullptr)
        return "no camera is chosen";
    const bool e_family = cfg.camera->family == SIM_FAMILY_E;
    const sim_s_format_t *s_format = e_family ? nullptr : sim_raw_s_format(cfg.format);
    if (e_family ? sim_raw_e_planes(cfg.format) == 0 : s_format == nullptr)
        return std::string("camera ") + cfg.camera->name + " has no frame format " + number(cfg.format);
    const bool dual = s_format != nullptr && s_format->dual;
    for (const uint32_t freq : {cfg.freq0, cfg.freq1})
        if ((freq != 0 || freq == cfg.freq0) && (freq < 1000000 || freq > 200000000))
            return "the modulation frequency must lie in 1 to 200 MHz, not " + number(freq) + " Hz";
    if (dual != (cfg.freq1 != 0))
        return "frame format " + number(cfg.format) +
               (dual ? " needs two modulation frequencies" : " works with one modulation frequency");
    if (cfg.fps < 1 || cfg.fps > 1000)
        return "the frame rate must lie in 1 to 1000, not " + number(cfg.fps);
    if (cfg.intg_us < 1 || cfg.intg_us > 65535 || cfg.intg2_us > 65535)
        return "integration times must lie in 1 to 65535 us";
    const uint32_t hdr_format = e_family ? uint32_t{SIM_E_FMT_4DCS} : uint32_t{SIM_S_FMT_IQ_HDR};
    if (cfg.intg2_us != 0 && cfg.format != hdr_format)
        return "a second integration time needs frame format " + number(hdr_format);
    if (cfg.meta_size > (e_family ? 0 : 65536))
        return e_family ? "frames of this camera have no metadata" : "metadata is at most 65536 bytes";
    if (!(cfg.scene.distance_mm > 0) || cfg.scene.distance_mm > 1e6)
        return "the distance must be above 0 and at most 1000 m";
    return {};
}

namespace {

typedef struct live_t {
    sim_config_t cfg;
    sim_camera_t camera;
    uint32_t index;
    double time_s; // since the first frame
    bool still;    // view shows all that there is to see, from the first frame on
    sim_view_t view;
    sim_field_t field, field1;
    std::vector<uint8_t> raw;
    std::vector<float> truth;
} live_t;

// The part of the final warming that is reached after time_s, with a time constant of a minute.
double _warmed(double time_s)
{
    return time_s / (time_s + 60);
}

void _look(live_t *live)
{
    if (live->still)
        return;
    sim_scene_render(live->cfg.scene, live->camera.row->lens, live->camera.row->width,
                     live->camera.row->height, live->time_s, &live->view);
    live->truth.resize(live->view.hit.size());
    std::transform(live->view.hit.begin(), live->view.hit.end(), live->truth.begin(),
                   [](const sim_hit_t &hit) { return hit.dist_mm; });
    live->still = !live->cfg.scene.moving;
}

bool _next(void *self, sim_frame_t *out)
{
    live_t *live = static_cast<live_t *>(self);
    const sim_config_t &cfg = live->cfg;
    _look(live);

    const double warm = cfg.warmup_deg * 10 * _warmed(live->time_s);
    // Two frequencies are two exposures a frame.
    const uint32_t rate = cfg.freq1 == 0 ? cfg.fps : std::min(2 * cfg.fps, 30u);
    sim_state_t state = {cfg.freq0, cfg.intg_us, rate, static_cast<int16_t>(cfg.temp_cb + warm),
                         static_cast<int16_t>(cfg.temp_ib + 1.5 * warm)};
    sim_camera_expose(live->camera, live->view, state, &live->field);
    const double second = cfg.intg2_us == 0 ? 1.0 : static_cast<double>(cfg.intg2_us) / cfg.intg_us;
    if (cfg.camera->family == SIM_FAMILY_E) {
        sim_raw_e_make(live->camera, live->field, cfg.format, second, live->index, &live->raw);
    } else {
        if (cfg.freq1 != 0) {
            state.mod_freq = cfg.freq1;
            sim_camera_expose(live->camera, live->view, state, &live->field1);
        }
        sim_raw_s_make(live->camera, live->field, live->field1,
                       {cfg.format, cfg.freq0, cfg.freq1, cfg.intg_us, second, cfg.meta_size, live->index},
                       &live->raw);
    }

    const uint64_t usec = static_cast<uint64_t>(live->time_s * 1e6) / 64 * 64;
    *out = {};
    out->index = live->index;
    out->format = cfg.format;
    out->width = live->view.width;
    out->height = live->view.height;
    out->temp_cb = state.temp_cb;
    out->temp_ib = state.temp_ib;
    out->time_of_day_sec = static_cast<uint32_t>((cfg.start_sec + usec / 1000000) % 86400);
    out->time_usec = static_cast<uint32_t>(usec % 1000000 / 64 * 64);
    out->meta_size = cfg.meta_size;
    out->meta_intg_us = sim_raw_s_meta_intg(cfg.meta_size, cfg.intg_us);
    out->data = live->raw;
    out->truth_mm = live->truth;
    live->index++;
    live->time_s += 1.0 / cfg.fps;
    return true;
}

bool _configure(void *self, const sim_config_t &cfg)
{
    live_t *live = static_cast<live_t *>(self);
    if (!sim_config_check(cfg).empty() || cfg.camera != live->cfg.camera)
        return false;
    live->cfg = cfg;
    live->still = false;
    return true;
}

void _destroy(void *self)
{
    delete static_cast<live_t *>(self);
}

} // namespace

sim_source_ptr_t sim_source_live(const sim_config_t &cfg)
{
    live_t *live = new live_t{};
    live->cfg = cfg;
    sim_camera_init(&live->camera, cfg.camera, cfg.defects, cfg.seed);
    return sim_source_ptr_t(
        new sim_frame_source_t{live, _next, [](void *) { return true; }, _configure, _destroy});
}

uint32_t sim_frame_time_word(const sim_frame_t &frame)
{
    const uint32_t s = frame.time_of_day_sec;
    return s / 3600 | s / 60 % 60 << 5 | s % 60 << 11 | frame.time_usec / 64 << 17;
}
