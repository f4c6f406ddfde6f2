// Forms of the point cloud. The plain form defines the result. What a form makes of a pixel is chosen by
// kind.
#pragma once

#include <cstdint>

enum pcl_kind_t {
    PCL_XYZ,  // three f32
    PCL_XYZD, // three f32 and the 32 bits of extra
    PCL_Z     // one f32
};

// cx, cy, fx, fy of lens; tbl (which needs no alignment) and extra may be null.
struct pcl_args_t {
    float *pcl;
    const float *tbl;
    const void *extra;
    int w, h;
    const float *lens;
    pcl_kind_t kind;
    bool d_is_z;
};

void pcl_f32_plain(const pcl_args_t &a, const float *dist);
void pcl_f32_simd(const pcl_args_t &a, const float *dist);
void pcl_u16_plain(const pcl_args_t &a, const uint16_t *dist);
void pcl_u16_simd(const pcl_args_t &a, const uint16_t *dist);
