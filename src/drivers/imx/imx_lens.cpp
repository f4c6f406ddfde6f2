// Lens parameters: a lens binary, the lens record in the calibration file's header, the driver's own record.
#include <cstring>

#include "drivers/imx/imx_priv.h"

// A 70 degree lens without distortion.
lens_default_t imx_lens_default = {{}, {320, 240, 460, 460, {}, 0, 640, 480}};

const tq_lens_bin_t *imx_lens_rec_get(tqcam_drv_t *drv)
{
    const imx_priv_t *p = imx_priv(drv);
    if (!p)
        return nullptr;
    return p->lens_from_file && p->lens_bin ? p->lens_bin : p->calib_lens;
}

bool imx_lens_param_get(tqcam_drv_t *drv, tqcam_lens_param_t *out, int w, int h, int)
{
    const imx_priv_t *p = imx_priv(drv);
    if (!p || w < 1 || h < 1)
        return false;
    const tq_lens_bin_t *bin = imx_lens_rec_get(drv);
    const tqcam_lens_param_t rec = bin                ? lens_of_bin(bin)
                                   : p->has_file_lens ? p->file_lens
                                                      : lens_default_get(&imx_lens_default);
    return lens_scale(rec, w, h, out, __func__);
}

// The map takes long to make, so that the same lens isn't mapped again.
void imx_lens_update(tqcam_drv_t *drv, tqcam_lens_param_t *lens)
{
    imx_priv_t *p = imx_priv(drv);
    std::memset(lens, 0, sizeof(*lens));
    if (!imx_lens_param_get(drv, lens, static_cast<int>(p->img_w), static_cast<int>(p->img_h), 0))
        return;
    tq_calib_len_map_t *map = tq_priv_get_len_calib_handle(p->dev);
    if (!map || !std::memcmp(&p->mapped_lens, lens, sizeof(*lens)))
        return;
    tq_calib_len_update_map(map, lens);
    p->mapped_lens = *lens;
}
