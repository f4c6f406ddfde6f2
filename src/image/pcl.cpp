#include "tq_pcl.h"

#include "image/pcl_kernels.h"
#include "simd/dispatch.h"

static pcl_args_t _pcl_args(float *pcl, const float *tbl, int w, int h, const float *lens, const void *extra,
                            uint8_t z_only, uint8_t d_is_z)
{
    return {pcl, tbl, extra, w, h, lens, z_only ? PCL_Z : extra ? PCL_XYZD : PCL_XYZ, d_is_z != 0};
}

int tq_pcl_get_xyzd_f32(float *pcl, const float *dist, const float *tbl, int w, int h, const float *lens,
                        const void *extra, uint8_t z_only, uint8_t d_is_z)
{
    if (!pcl || !dist || !lens)
        return -22;
    if (w > 0 && h > 0)
        (simd_enabled() ? pcl_f32_simd
                        : pcl_f32_plain)(_pcl_args(pcl, tbl, w, h, lens, extra, z_only, d_is_z), dist);
    return 0;
}

int tq_pcl_get_xyzd_u16(float *pcl, const uint16_t *dist, const float *tbl, int w, int h, const float *lens,
                        const void *extra, uint8_t z_only, uint8_t d_is_z)
{
    if (!pcl || !dist || !lens)
        return -22;
    if (w > 0 && h > 0)
        (simd_enabled() ? pcl_u16_simd
                        : pcl_u16_plain)(_pcl_args(pcl, tbl, w, h, lens, extra, z_only, d_is_z), dist);
    return 0;
}
