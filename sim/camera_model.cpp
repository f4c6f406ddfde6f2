#include "camera_model.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

// Coefficients of a warm camera: the light source leads, the board follows.
constexpr sim_drift_t DRIFT_E = {13.78, 1.183, 0.02, false, {0, 0, 0, 0}};
constexpr sim_drift_t DRIFT_S = {2.5, 0.6, 0.02, true, {-4.064, 47.397, -6.596, 0.334}};

constexpr sim_camera_row_t ROWS[] = {
    {"E1",
     "TQSIM-E1-320X240",
     SIM_FAMILY_E,
     320,
     240,
     0,
     true,
     2,
     12000000,
     0,
     60,
     1500,
     1000,
     {230, 230, 160, 120},
     1600,
     150,
     30,
     DRIFT_E,
     0},
    {"E2",
     "TQSIM-E2-320X240",
     SIM_FAMILY_E,
     320,
     240,
     0,
     true,
     2,
     12000000,
     0,
     60,
     1500,
     1000,
     {340, 340, 160, 120},
     2000,
     120,
     30,
     DRIFT_E,
     0},
    {"E3",
     "TQSIM-E3-320X240",
     SIM_FAMILY_E,
     320,
     240,
     0,
     true,
     2,
     24000000,
     0,
     60,
     1500,
     1000,
     {230, 230, 160, 120},
     1600,
     150,
     20,
     DRIFT_E,
     0},
    {"E4",
     "TQSIM-E4-320X240",
     SIM_FAMILY_E,
     320,
     240,
     0,
     true,
     2,
     12000000,
     0,
     60,
     1500,
     1000,
     {280, 280, 160, 120},
     1800,
     150,
     30,
     DRIFT_E,
     0},
    {"E5",
     "TQSIM-E5-160X60",
     SIM_FAMILY_E,
     160,
     60,
     4,
     false,
     2,
     12000000,
     0,
     60,
     1500,
     1000,
     {115, 115, 80, 30},
     1600,
     150,
     30,
     DRIFT_E,
     0},
    {"S1",
     "TQSIM-S1-640X480",
     SIM_FAMILY_S,
     640,
     480,
     0,
     false,
     16,
     120000000,
     0,
     30,
     1000,
     500,
     {480, 480, 320, 240},
     1500,
     40,
     5,
     DRIFT_S,
     1110},
    {"S2",
     "TQSIM-S2-640X480",
     SIM_FAMILY_S,
     640,
     480,
     0,
     false,
     16,
     100000000,
     0,
     30,
     1000,
     500,
     {480, 480, 320, 240},
     1500,
     40,
     5,
     DRIFT_S,
     1110},
    {"S3",
     "TQSIM-S3-640X480",
     SIM_FAMILY_S,
     640,
     480,
     0,
     false,
     2,
     80000000,
     0,
     30,
     1000,
     500,
     {480, 480, 320, 240},
     1500,
     40,
     5,
     DRIFT_S,
     1110},
    {"S570C4",
     "TQSIM-S570C4-VGA",
     SIM_FAMILY_S,
     640,
     480,
     0,
     false,
     17,
     120000000,
     40000000,
     30,
     1000,
     500,
     {500, 500, 320, 240},
     1800,
     40,
     5,
     DRIFT_S,
     1302},
};

enum { PURPOSE_PIXELS = 1, PURPOSE_DEAD = 2, PURPOSE_PERIODIC = 3 };

constexpr double FULL_WELL = 3600;    // light that a pixel holds, in samples
constexpr double LIGHT_PER_AMP = 1.4; // light collected for each sample of amplitude

} // namespace

const sim_camera_row_t *sim_camera_find(const char *name)
{
    for (const sim_camera_row_t &row : ROWS)
        if (strcmp(row.name, name) == 0)
            return &row;
    return nullptr;
}

const sim_camera_row_t *sim_camera_at(size_t i)
{
    return i < sizeof ROWS / sizeof ROWS[0] ? &ROWS[i] : nullptr;
}

sim_defects_t sim_defects_none(void)
{
    sim_defects_t d = {};
    d.fixed_amp = 1000;
    return d;
}

sim_defects_t sim_defects_noise(const sim_camera_row_t *row)
{
    sim_defects_t d = sim_defects_none();
    d.dead_share = 0.0005;
    d.falloff = 1;
    d.ambient = row->family == SIM_FAMILY_E ? 60 : 30;
    d.shot = 0.01;
    d.read = row->family == SIM_FAMILY_E ? 1.5 : 1.2;
    d.saturation = 1;
    d.flying = 1;
    return d;
}

sim_defects_t sim_defects_all(const sim_camera_row_t *row)
{
    sim_defects_t d = sim_defects_noise(row);
    d.offset_mm = row->offset_mm;
    d.offset_spread_mm = row->offset_spread_mm;
    d.slope_spread = 0.002;
    d.periodic = 0.001;
    d.drift = 1;
    return d;
}

void sim_camera_init(sim_camera_t *cam, const sim_camera_row_t *row, const sim_defects_t &defects,
                     uint64_t seed)
{
    const size_t n = static_cast<size_t>(row->width) * row->height;
    cam->row = row;
    cam->defects = defects;
    cam->seed = seed;
    cam->offset_mm.resize(n);
    cam->slope.resize(n);
    cam->pixel.assign(n, SIM_PIXEL_GOOD);

    sim_rng_t rng = sim_rng_stream(seed, PURPOSE_PIXELS, 0);
    for (size_t i = 0; i < n; i++) {
        cam->offset_mm[i] =
            static_cast<float>(defects.offset_mm + defects.offset_spread_mm * sim_rng_gauss(rng));
        cam->slope[i] = static_cast<float>(1 + defects.slope_spread * sim_rng_gauss(rng));
    }
    rng = sim_rng_stream(seed, PURPOSE_DEAD, 0);
    for (size_t i = 0; i < n; i++) {
        const double lot = sim_rng_uniform(rng);
        if (lot < defects.dead_share)
            cam->pixel[i] = static_cast<uint8_t>(SIM_PIXEL_DARK + sim_rng_next(rng) % 3);
    }
    rng = sim_rng_stream(seed, PURPOSE_PERIODIC, 0);
    cam->periodic_turns = sim_rng_uniform(rng);
}

int32_t sim_range_mm(uint32_t mod_freq)
{
    if (mod_freq == 0)
        return 0;
    const float range = 1.4989622e11f / static_cast<float>(mod_freq);
    return range < 2147483520.0f ? static_cast<int32_t>(range) : 0;
}

double sim_camera_drift_mm(const sim_camera_t &cam, const sim_state_t &state)
{
    if (cam.defects.drift == 0)
        return 0;
    const sim_drift_t &k = cam.row->drift;
    // A cold board doubles the drift of both from 20 degrees down.
    const double steep = k.pieces && state.temp_cb < 200 ? 1 : 0;
    const auto part = [steep](double temp, double ref, double mm_per_deg) {
        return (temp - ref + steep * (temp - 200)) * mm_per_deg / 10;
    };
    double mm = part(state.temp_cb, SIM_REF_TEMP_CB, k.mm_per_deg_cb) +
                part(state.temp_ib, SIM_REF_TEMP_IB, k.mm_per_deg_ib) +
                (static_cast<double>(state.fps) - SIM_REF_FPS) * k.mm_per_fps;
    if (state.intg_us > 0 && state.intg_us < 600) {
        const double u = 100.0 / state.intg_us;
        mm += std::max(0.0, ((k.intg[3] * u + k.intg[2]) * u + k.intg[1]) * u + k.intg[0]);
    }
    return cam.defects.drift * mm;
}

namespace {

// What all pixels of one exposure share.
typedef struct shared_t {
    double drift_mm, range, periodic_mm;
} shared_t;

shared_t _shared(const sim_camera_t &cam, const sim_state_t &state)
{
    const double range = sim_range_mm(state.mod_freq);
    return {sim_camera_drift_mm(cam, state), range, cam.defects.periodic * range};
}

double _measured_mm(const sim_camera_t &cam, uint32_t pixel, double true_mm, const shared_t &shared)
{
    double mm = true_mm * cam.slope[pixel] + cam.offset_mm[pixel] + shared.drift_mm;
    if (shared.periodic_mm != 0) {
        double s, unused;
        sim_sincos_turns(4.0 * true_mm / shared.range + cam.periodic_turns, &s, &unused);
        mm += shared.periodic_mm * s;
    }
    return mm;
}

} // namespace

double sim_camera_measured_mm(const sim_camera_t &cam, uint32_t pixel, double true_mm,
                              const sim_state_t &state)
{
    return _measured_mm(cam, pixel, true_mm, _shared(cam, state));
}

double sim_camera_amplitude(const sim_camera_t &cam, const sim_hit_t &hit, uint32_t intg_us)
{
    if (hit.dist_mm <= 0)
        return 0;
    if (cam.defects.falloff == 0)
        return cam.defects.fixed_amp;
    const double metres = hit.dist_mm / 1000.0;
    return cam.row->amp_1m * hit.reflect * (intg_us / 500.0) / (metres * metres);
}

namespace {

typedef struct light_t {
    double c, s, amp;
} light_t;

light_t _receive(const sim_camera_t &cam, uint32_t pixel, const sim_hit_t &hit, uint32_t intg_us,
                 const shared_t &shared)
{
    const double amp = sim_camera_amplitude(cam, hit, intg_us);
    if (amp == 0 || shared.range == 0)
        return {0, 0, amp};
    double s, c;
    sim_sincos_turns(_measured_mm(cam, pixel, hit.dist_mm, shared) / shared.range, &s, &c);
    return {amp * c, amp * s, amp};
}

} // namespace

void sim_camera_expose(const sim_camera_t &cam, const sim_view_t &view, const sim_state_t &state,
                       sim_field_t *field)
{
    const shared_t shared = _shared(cam, state);
    const double ambient = cam.defects.ambient * state.intg_us / 500.0;
    const size_t n = view.hit.size();
    field->width = view.width;
    field->height = view.height;
    field->c.resize(n);
    field->s.resize(n);
    field->light.resize(n);
    const auto put = [&](size_t i, const light_t &l) {
        field->c[i] = static_cast<float>(l.c);
        field->s[i] = static_cast<float>(l.s);
        field->light[i] = static_cast<float>(LIGHT_PER_AMP * l.amp + ambient);
    };
    for (size_t i = 0; i < n; i++)
        put(i, _receive(cam, static_cast<uint32_t>(i), view.hit[i], state.intg_us, shared));
    if (cam.defects.flying == 0)
        return;
    for (const sim_edge_t &edge : view.edge) {
        light_t sum = {0, 0, 0};
        for (const sim_hit_t &ray : edge.ray) {
            const light_t l = _receive(cam, edge.pixel, ray, state.intg_us, shared);
            sum = {sum.c + l.c, sum.s + l.s, sum.amp + l.amp};
        }
        put(edge.pixel, {sum.c / SIM_EDGE_RAYS, sum.s / SIM_EDGE_RAYS, sum.amp / SIM_EDGE_RAYS});
    }
}

double sim_camera_noise(const sim_camera_t &cam, double light, sim_rng_t &rng)
{
    const double variance = cam.defects.read * cam.defects.read + cam.defects.shot * light;
    return variance > 0 ? sim_rng_gauss(rng) * std::sqrt(variance) : 0;
}

uint16_t sim_camera_sample(const sim_camera_t &cam, uint32_t pixel, double value, double light,
                           sim_rng_t &rng)
{
    const double noise =
        sim_camera_noise(cam, light, rng); // drawn in any case: a dead pixel must not shift the others
    switch (cam.pixel[pixel]) {
    case SIM_PIXEL_DARK:
        value = 0;
        break;
    case SIM_PIXEL_HIGH:
        return 4095;
    case SIM_PIXEL_LOW:
        return 0;
    default:
        break;
    }
    if (cam.defects.saturation != 0 && light > FULL_WELL)
        return 4095;
    const bool ends = cam.defects.saturation != 0;
    return static_cast<uint16_t>(
        sim_round(std::clamp(2048 + value + noise, ends ? 0.0 : 2.0, ends ? 4095.0 : 4093.0)));
}

bool sim_camera_usable(const sim_camera_t &cam, uint32_t pixel, double value, double light)
{
    return cam.pixel[pixel] == SIM_PIXEL_GOOD &&
           (cam.defects.saturation == 0 || (light <= FULL_WELL && std::fabs(value) <= 2047));
}
