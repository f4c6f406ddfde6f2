// Parameters of the virtual camera: numbered records of up to 18 bytes, what each may be, and the settings of
// the simulation that follow from them.
#pragma once

#include "frame_source.h"
#include "replay_recorder.h"

#include <array>

inline constexpr uint8_t VCAM_PARAM_PACK = 8; // served by the camera's memory

typedef struct vcam_param_t {
    uint8_t len; // 0: the camera doesn't know it
    std::array<uint8_t, 18> value;
} vcam_param_t;

typedef struct vcam_params_t {
    std::array<vcam_param_t, 256> item;
} vcam_params_t;

void vcam_params_init(vcam_params_t *params, const sim_config_t &sim, const sim_identity_t &id);

// Empty when the camera took it, else why not.
std::string vcam_param_set(vcam_params_t *params, const sim_config_t &sim, uint8_t id, const uint8_t *value,
                           uint8_t len);

// Fills 18 bytes and returns how many count.
uint8_t vcam_param_get(const vcam_params_t &params, uint8_t id, uint8_t value[18]);

uint32_t vcam_params_fps(const vcam_params_t &params);
uint32_t vcam_params_mode(const vcam_params_t &params);

// The simulation's settings by these parameters. Frequencies count by the format in force, and so does a
// second integration time.
sim_config_t vcam_params_config(const vcam_params_t &params, const sim_config_t &sim);
