// Single frames of simulated cameras, with the truth beside them.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "frame_source.h"

// A camera without defects.
inline sim_config_t sim_ideal(const char *camera, sim_scene_kind_t scene, double mm, uint32_t format,
                              uint32_t f0, uint32_t f1 = 0)
{
    sim_config_t cfg = sim_config_default(sim_camera_find(camera));
    cfg.defects = sim_defects_none();
    cfg.scene = sim_scene_make(scene);
    cfg.scene.distance_mm = mm;
    cfg.format = format;
    cfg.freq0 = f0;
    cfg.freq1 = f1;
    return cfg;
}

struct sim_shot_t {
    sim_frame_t frame = {};
    std::vector<uint8_t> raw;
    std::vector<float> truth_mm;

    explicit sim_shot_t(const sim_config_t &cfg)
    {
        const sim_source_ptr_t source = sim_source_live(cfg);
        if (!source->next(source->self, &frame))
            return;
        raw.assign(frame.data.begin(), frame.data.end());
        truth_mm.assign(frame.truth_mm.begin(), frame.truth_mm.end());
    }
};

// The error that share of the pixels don't exceed.
inline double share_of(std::vector<double> errors, double share)
{
    if (errors.empty())
        return 1e9;
    std::sort(errors.begin(), errors.end());
    return errors[static_cast<size_t>(static_cast<double>(errors.size() - 1) * share)];
}
