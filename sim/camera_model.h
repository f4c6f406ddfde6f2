// A camera as the scene sees it: its lens, and everything by which what it measures departs from the truth.
//
// All defects of one camera come from one seed, so that the same camera can be met again: by a recording, by
// the calibration made for it, and by a live stream. Each defect is a strength of its own; 0 switches it off.
#pragma once

#include "prng.h"
#include "scene.h"

#include <cstddef>
#include <cstdint>
#include <vector>

typedef enum { SIM_FAMILY_E, SIM_FAMILY_S } sim_family_t;

// The error that temperatures cause, in millimetres and degrees (Celsius). The board's and the light
// source's temperatures act separately; the S family drifts in pieces and with short integration times.
typedef struct sim_drift_t {
    double mm_per_deg_cb, mm_per_deg_ib, mm_per_fps;
    bool pieces;    // below 20 degrees the drift doubles
    double intg[4]; // polynomial in 100 us / integration time, for times below 600 us; all 0: none
} sim_drift_t;

// What can be bought: one row of sim_camera_rows.
typedef struct sim_camera_row_t {
    const char *name;    // chip word
    const char *product; // product string of the device
    sim_family_t family;
    uint32_t width, height;
    uint32_t sample_shift; // E family: left shift of the samples of four-plane frames
    bool rows_from_middle; // rows are read out from the middle to the edges, two at a time
    uint32_t format;       // default frame format
    uint32_t freq0, freq1; // default modulation frequencies in Hz
    uint32_t max_fps, max_intg_us, intg_us;
    sim_lens_t lens;
    double amp_1m; // amplitude in samples of a white surface at 1 m in 500 us
    double offset_mm, offset_spread_mm;
    sim_drift_t drift;
    uint32_t reg_map; // S family: id of the chip's register map, which its metadata follows
} sim_camera_row_t;

// NULL when no camera has that name.
const sim_camera_row_t *sim_camera_find(const char *name);
// Row i, NULL past the last.
const sim_camera_row_t *sim_camera_at(size_t i);

typedef struct sim_defects_t {
    double offset_mm;        // common to all pixels
    double offset_spread_mm; // sigma of the offset of single pixels
    double slope_spread;     // sigma of the slope of single pixels, around 1
    double periodic;         // amplitude of the error of four waves a range, as a share of the range
    double drift;            // 1: as the row says
    double dead_share;       // share of the pixels that deliver no measurement
    double falloff;          // 1: light falls with the square of the distance; 0: amplitude is fixed_amp
    double fixed_amp;        // samples
    double ambient;          // samples of background light in 500 us
    double shot;             // noise variance for each sample of light
    double read;             // sigma of the noise of an unlit pixel, samples
    double saturation;       // 1: full pixels and full converters give the end of the scale
    double flying;           // 1: a pixel across an edge mixes what it sees
} sim_defects_t;

sim_defects_t sim_defects_none(void);                         // an ideal camera, amplitude 1000 everywhere
sim_defects_t sim_defects_noise(const sim_camera_row_t *row); // light and noise; pixels without errors
sim_defects_t sim_defects_all(const sim_camera_row_t *row);   // and the errors that a calibration takes away

typedef enum { SIM_PIXEL_GOOD, SIM_PIXEL_DARK, SIM_PIXEL_HIGH, SIM_PIXEL_LOW } sim_pixel_t;

typedef struct sim_camera_t {
    const sim_camera_row_t *row;
    sim_defects_t defects;
    uint64_t seed;
    std::vector<float> offset_mm, slope; // for each pixel of the full image
    std::vector<uint8_t> pixel;          // sim_pixel_t
    double periodic_turns;               // start of the periodic error
} sim_camera_t;

// What the camera is set to while it measures. Temperatures in tenths of a degree.
typedef struct sim_state_t {
    uint32_t mod_freq, intg_us, fps;
    int16_t temp_cb, temp_ib;
} sim_state_t;

// Temperatures and frame rate at which the drift is 0.
inline constexpr int16_t SIM_REF_TEMP_CB = 350, SIM_REF_TEMP_IB = 400;
inline constexpr uint32_t SIM_REF_FPS = 10;

void sim_camera_init(sim_camera_t *cam, const sim_camera_row_t *row, const sim_defects_t &defects,
                     uint64_t seed);

// Unambiguous range in whole millimetres, as the library forms it; 0 for a frequency of 0.
int32_t sim_range_mm(uint32_t mod_freq);

// The distance that a pixel measures, without noise, before it wraps at the range.
double sim_camera_drift_mm(const sim_camera_t &cam, const sim_state_t &state);
double sim_camera_measured_mm(const sim_camera_t &cam, uint32_t pixel, double true_mm,
                              const sim_state_t &state);

// Amplitude in samples of a surface, by the light that comes back.
double sim_camera_amplitude(const sim_camera_t &cam, const sim_hit_t &hit, uint32_t intg_us);

// One exposure of the whole image: the correlation with the modulation, amplitude times cosine and sine of
// the phase (one turn is one range), and the light collected, all in samples.
typedef struct sim_field_t {
    uint32_t width, height;
    std::vector<float> c, s, light;
} sim_field_t;

void sim_camera_expose(const sim_camera_t &cam, const sim_view_t &view, const sim_state_t &state,
                       sim_field_t *field);

// The 12-bit sample of a correlation value around 2048, with noise and saturation. Valid samples lie in 2 to
// 4093; 0 and 4095 are the ends of the scale.
uint16_t sim_camera_sample(const sim_camera_t &cam, uint32_t pixel, double value, double light,
                           sim_rng_t &rng);

// For samples in other forms: whether a pixel delivers anything, and the noise that this light brings.
bool sim_camera_usable(const sim_camera_t &cam, uint32_t pixel, double value, double light);
double sim_camera_noise(const sim_camera_t &cam, double light, sim_rng_t &rng);
