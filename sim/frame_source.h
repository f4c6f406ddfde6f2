// Frames one after the other, as a camera delivers them: from a live scene, or from anything else that fills
// the same table of functions.
#pragma once

#include "camera_model.h"
#include "raw_e_family.h"
#include "raw_s_family.h"

#include <memory>
#include <span>
#include <string>

// The settings of a simulated camera. Times and temperatures as in sim_state_t.
typedef struct sim_config_t {
    const sim_camera_row_t *camera;
    sim_scene_t scene;
    sim_defects_t defects;
    uint64_t seed;
    uint32_t format;
    uint32_t freq0, freq1; // Hz; freq1 0: one frequency
    uint32_t fps;
    uint32_t intg_us, intg2_us; // intg2_us 0: one integration time
    int16_t temp_cb, temp_ib;   // of the first frame
    double warmup_deg;          // the board warms by this in the long run, the light source by 1.5 times it
    uint32_t meta_size;         // metadata in front of each sub-frame, S family only
    uint32_t start_sec;         // time of day of the first frame, seconds
} sim_config_t;

// The camera's defaults before its default scene, with noise.
sim_config_t sim_config_default(const sim_camera_row_t *camera);

// Moves the scene into the unambiguous range of the frequencies, with a ramp over all of it, and takes an
// integration time that neither drowns nor saturates the wall there.
void sim_config_fit(sim_config_t *cfg);

// Empty when the settings can be simulated, else a sentence that says why not.
std::string sim_config_check(const sim_config_t &cfg);

// Whether frames of both look alike: what can be set on a running camera is compared, not the scene.
bool sim_config_same(const sim_config_t &a, const sim_config_t &b);

// One frame. Data and truth stay valid until the next call on the same source.
typedef struct sim_frame_t {
    uint32_t index; // from 0; what goes on the wire are its low 16 bits
    uint32_t format, width, height;
    int16_t temp_cb, temp_ib;
    uint32_t time_of_day_sec, time_usec; // microseconds in steps of 64
    uint32_t meta_size;    // bytes of metadata in front of each sub-frame; 0 when there are none
    uint32_t meta_intg_us; // what the library reads from the metadata
    std::span<const uint8_t> data;
    std::span<const float> truth_mm; // radial distance by the pixel's centre; empty when unknown
} sim_frame_t;

// Where frames come from. self belongs to the source; destroy frees it.
typedef struct sim_frame_source_t {
    void *self;
    bool (*next)(void *self, sim_frame_t *out);             // false: no more frames
    bool (*ready)(void *self);                              // next has its frame, or end, at hand
    bool (*configure)(void *self, const sim_config_t &cfg); // from the next frame on; false: not possible
    void (*destroy)(void *self);
} sim_frame_source_t;

typedef struct sim_source_deleter_t {
    void operator()(sim_frame_source_t *source) const
    {
        source->destroy(source->self);
        delete source;
    }
} sim_source_deleter_t;
typedef std::unique_ptr<sim_frame_source_t, sim_source_deleter_t> sim_source_ptr_t;

// Renders frames without end. The settings must have passed sim_config_check.
sim_source_ptr_t sim_source_live(const sim_config_t &cfg);

// The header's time word: hour, minute, second and the fraction in units of 64 microseconds.
uint32_t sim_frame_time_word(const sim_frame_t &frame);
