// What stands before the camera: distance along the ray of each pixel and the light it sends back.
//
// Camera coordinates in millimetres: x to the right, y down, z away from the camera. Distances are radial,
// from the centre of projection along the pixel's ray, as a time-of-flight pixel measures them.
#pragma once

#include <cstdint>
#include <vector>

// Pinhole camera, in pixels. The centre of the pixel in column 0, row 0 lies at (0.5, 0.5).
typedef struct sim_lens_t {
    double fx, fy, cx, cy;
} sim_lens_t;

typedef enum {
    SIM_SCENE_ROOM, // a tilted wall, a box and a swinging ball before it
    SIM_SCENE_WALL, // a flat wall, square to the optical axis at distance_mm
    SIM_SCENE_DOME, // distance_mm in every pixel
    SIM_SCENE_RAMP, // 0 at the left edge to distance_mm at the right one, the same in every row
} sim_scene_kind_t;

typedef struct sim_scene_t {
    sim_scene_kind_t kind;
    double distance_mm; // of wall and dome; end of the ramp; scales the room, whose wall stands at about this
    double reflectivity; // of the wall, 0 to 1
    bool moving;         // the ball of the room swings with a period of 4 seconds
} sim_scene_t;

// What one ray meets. A ray that leaves the scene has distance 0 and no light.
typedef struct sim_hit_t {
    float dist_mm;
    float reflect; // reflectivity times the cosine of incidence
} sim_hit_t;

inline constexpr int SIM_EDGE_RAYS = 16;

// A pixel that an edge crosses: the rays spread over its area.
typedef struct sim_edge_t {
    uint32_t pixel;
    sim_hit_t ray[SIM_EDGE_RAYS];
} sim_edge_t;

typedef struct sim_view_t {
    uint32_t width, height;
    std::vector<sim_hit_t> hit; // by the ray of the pixel's centre, row by row
    std::vector<sim_edge_t> edge;
} sim_view_t;

// The default scene of a kind.
sim_scene_t sim_scene_make(sim_scene_kind_t kind);

// The ray through image position (u, v) of an image that is width pixels wide, time_s after the start.
sim_hit_t sim_scene_cast(const sim_scene_t &scene, const sim_lens_t &lens, uint32_t width, double u, double v,
                         double time_s);

// All pixels of an image.
void sim_scene_render(const sim_scene_t &scene, const sim_lens_t &lens, uint32_t width, uint32_t height,
                      double time_s, sim_view_t *view);
