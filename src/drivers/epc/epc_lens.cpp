// Lens parameters: the driver's own record, lens files, the calibration's lens.
#include <cstring>

#include "drivers/epc/epc_priv.h"

// A 70 degree lens without distortion.
lens_default_t epc_lens_default = {{}, {160, 120, 230, 230, {}, 0, 320, 240}};

const tq_lens_bin_t *epc_lens_rec_get(tqcam_drv_t *drv)
{
    const epc_priv_t *p = epc_priv(drv);
    if (!p)
        return nullptr;
    if (p->lens_from_file && p->lens_bin)
        return p->lens_bin;
    return p->calib_lens.load(std::memory_order_acquire);
}

bool epc_lens_param_get(tqcam_drv_t *drv, tqcam_lens_param_t *out, int w, int h, int)
{
    const tq_lens_bin_t *bin = epc_lens_rec_get(drv);
    const tqcam_lens_param_t rec = bin ? lens_of_bin(bin) : lens_default_get(&epc_lens_default);
    return lens_scale(rec, w, h, out, __func__);
}

// The map takes long to make and may be in use on other threads, so that the same lens isn't mapped again.
void epc_lens_update(tqcam_drv_t *drv, tqcam_lens_param_t *lens)
{
    epc_priv_t *p = epc_priv(drv);
    memset(lens, 0, sizeof(*lens));
    if (!epc_lens_param_get(drv, lens, static_cast<int>(p->img_w), static_cast<int>(p->img_h), 0))
        return;
    tq_calib_len_map_t *map = tq_priv_get_len_calib_handle(p->dev);
    if (!map || !memcmp(&p->mapped_lens, lens, sizeof(*lens)))
        return;
    tq_calib_len_update_map(map, lens);
    p->mapped_lens = *lens;
}
