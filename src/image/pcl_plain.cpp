#include "image/pcl_kernels.h"

#include <cmath>
#include <cstddef>
#include <cstring>

static inline float _metres(float d)
{
    return d;
}

static inline float _metres(uint16_t d)
{
    return (float)d / 1000.0f;
}

template <class T> static void _pcl(const pcl_args_t &a, const T *dist)
{
    const float cx = a.lens[0], cy = a.lens[1];
    const float ifx = 1.0f / a.lens[2], ify = 1.0f / a.lens[3];
    for (int r = 0; r < a.h; r++) {
        const float yr = ((float)r - cy) * ify;
        for (int c0 = 0; c0 < a.w - 3; c0 += 4) {
            const float xc = (float)c0 - cx;
            for (int k = 0; k < 4; k++) {
                const size_t p = (size_t)a.w * r + c0 + k;
                float d = _metres(dist[p]);
                if (!(d < 60.0f))
                    d = 0.0f;
                float add = 0.0f;
                if (a.tbl)
                    memcpy(&add, (const char *)a.tbl + p * sizeof(add), sizeof(add));
                const float x = (xc + (float)k) * d * ifx;
                const float y = d * yr;
                const float z = a.d_is_z ? d + add * d : std::sqrt(d * d - x * x - y * y) + d * add;
                if (a.kind == PCL_Z) {
                    a.pcl[p] = z;
                    continue;
                }
                float *out = a.pcl + p * (a.kind == PCL_XYZD ? 4 : 3);
                out[0] = x;
                out[1] = y;
                out[2] = z;
                if (a.kind == PCL_XYZD)
                    memcpy(out + 3, (const char *)a.extra + p * 4, 4);
            }
        }
    }
}

void pcl_f32_plain(const pcl_args_t &a, const float *dist)
{
    _pcl(a, dist);
}

void pcl_u16_plain(const pcl_args_t &a, const uint16_t *dist)
{
    _pcl(a, dist);
}
