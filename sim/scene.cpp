#include "scene.h"

#include "prng.h"

#include <algorithm>
#include <cmath>

namespace {

typedef struct vec_t {
    double x, y, z;
} vec_t;

double _dot(const vec_t &a, const vec_t &b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

// The nearest surface met so far.
typedef struct nearest_t {
    double t;
    double reflect;
} nearest_t;

void _meet(nearest_t *near, double t, double reflect)
{
    if (t > 0 && (near->t == 0 || t < near->t))
        *near = {t, reflect};
}

void _meet_plane(nearest_t *near, const vec_t &ray, const vec_t &point, const vec_t &normal, double reflect)
{
    const double facing = _dot(ray, normal);
    if (std::fabs(facing) > 1e-9)
        _meet(near, _dot(point, normal) / facing, reflect * std::fabs(facing));
}

void _meet_box(nearest_t *near, const vec_t &ray, const vec_t &lo, const vec_t &hi, double reflect)
{
    const double r[3] = {ray.x, ray.y, ray.z}, a[3] = {lo.x, lo.y, lo.z}, b[3] = {hi.x, hi.y, hi.z};
    double enter = 0, leave = 1e30, facing = 0;
    for (int i = 0; i < 3; i++) {
        if (std::fabs(r[i]) < 1e-12) {
            if (a[i] > 0 || b[i] < 0)
                return;
            continue;
        }
        const double inverse = 1 / r[i];
        double t0 = a[i] * inverse, t1 = b[i] * inverse;
        if (t0 > t1)
            std::swap(t0, t1);
        if (t0 > enter) {
            enter = t0;
            facing = std::fabs(r[i]);
        }
        leave = std::min(leave, t1);
    }
    if (enter > 0 && enter <= leave)
        _meet(near, enter, reflect * facing);
}

void _meet_ball(nearest_t *near, const vec_t &ray, const vec_t &centre, double radius, double reflect)
{
    const double along = _dot(ray, centre);
    const double off = along * along - (_dot(centre, centre) - radius * radius);
    if (off < 0)
        return;
    const double t = along - std::sqrt(off);
    const vec_t normal = {ray.x * t - centre.x, ray.y * t - centre.y, ray.z * t - centre.z};
    _meet(near, t, reflect * std::fabs(_dot(ray, normal)) / radius);
}

sim_hit_t _cast_room(const sim_scene_t &scene, const vec_t &ray, double time_s)
{
    const double s = scene.distance_mm; // everything stands in proportion to the wall's distance
    nearest_t near = {0, 0};
    // The wall leans back and is turned by about 20 degrees; (0.34, 0.1, -0.935) is a unit vector.
    _meet_plane(&near, ray, {0, 0, s}, {0.34, 0.1, -0.93509}, scene.reflectivity);
    _meet_box(&near, ray, {-0.45 * s, -0.05 * s, 0.60 * s}, {-0.13 * s, 0.3 * s, 0.82 * s},
              0.5 * scene.reflectivity);
    double swing = 0, unused;
    if (scene.moving)
        sim_sincos_turns(time_s / 4.0, &swing, &unused);
    _meet_ball(&near, ray, {(0.18 + 0.12 * swing) * s, 0.02 * s, 0.55 * s}, 0.1 * s, scene.reflectivity);
    return {static_cast<float>(near.t), static_cast<float>(near.reflect)};
}

} // namespace

sim_scene_t sim_scene_make(sim_scene_kind_t kind)
{
    const double distance = kind == SIM_SCENE_ROOM ? 2800 : kind == SIM_SCENE_RAMP ? 12491 : 1000;
    return {kind, distance, 0.8, kind == SIM_SCENE_ROOM};
}

sim_hit_t sim_scene_cast(const sim_scene_t &scene, const sim_lens_t &lens, uint32_t width, double u, double v,
                         double time_s)
{
    if (scene.kind == SIM_SCENE_RAMP)
        return {static_cast<float>(u / width * scene.distance_mm), static_cast<float>(scene.reflectivity)};
    if (scene.kind == SIM_SCENE_DOME)
        return {static_cast<float>(scene.distance_mm), static_cast<float>(scene.reflectivity)};

    const double x = (u - lens.cx) / lens.fx, y = (v - lens.cy) / lens.fy;
    const double norm = std::sqrt(x * x + y * y + 1);
    const vec_t ray = {x / norm, y / norm, 1 / norm};
    if (scene.kind == SIM_SCENE_ROOM)
        return _cast_room(scene, ray, time_s);
    return {static_cast<float>(scene.distance_mm * norm), static_cast<float>(scene.reflectivity / norm)};
}

namespace {

// Two neighbours lie on different surfaces when their distances or their light part by a twentieth or more.
bool _parted(const sim_hit_t &a, const sim_hit_t &b)
{
    return std::fabs(a.dist_mm - b.dist_mm) > 0.05f * std::min(a.dist_mm, b.dist_mm) ||
           std::fabs(a.reflect - b.reflect) > 0.3f * std::max(a.reflect, b.reflect);
}

} // namespace

void sim_scene_render(const sim_scene_t &scene, const sim_lens_t &lens, uint32_t width, uint32_t height,
                      double time_s, sim_view_t *view)
{
    view->width = width;
    view->height = height;
    view->hit.resize(static_cast<size_t>(width) * height);
    view->edge.clear();
    for (uint32_t y = 0; y < height; y++)
        for (uint32_t x = 0; x < width; x++)
            view->hit[static_cast<size_t>(y) * width + x] =
                sim_scene_cast(scene, lens, width, x + 0.5, y + 0.5, time_s);
    if (scene.kind != SIM_SCENE_ROOM)
        return;

    // An edge between two pixel centres may cross either of them.
    std::vector<uint8_t> crossed(view->hit.size(), 0);
    for (uint32_t y = 0; y < height; y++) {
        for (uint32_t x = 0; x < width; x++) {
            const size_t i = static_cast<size_t>(y) * width + x;
            for (const size_t step : {size_t{1}, size_t{width}}) {
                if (step == 1 ? x + 1 == width : y + 1 == height)
                    continue;
                if (_parted(view->hit[i], view->hit[i + step]))
                    crossed[i] = crossed[i + step] = 1;
            }
        }
    }
    for (size_t i = 0; i < crossed.size(); i++) {
        if (!crossed[i])
            continue;
        sim_edge_t edge = {static_cast<uint32_t>(i), {}};
        const double x = static_cast<double>(i % width), y = static_cast<double>(i / width);
        for (int k = 0; k < SIM_EDGE_RAYS; k++)
            edge.ray[k] =
                sim_scene_cast(scene, lens, width, x + (k % 4 + 0.5) / 4, y + (k / 4 + 0.5) / 4, time_s);
        view->edge.push_back(edge);
    }
}
