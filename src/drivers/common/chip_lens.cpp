// Lens parameters of a device: a lens file, the calibration's lens, the lens record in the calibration file's
// header, the family's own record.
#include <cstring>

#include "drivers/common/chip.h"

static const tq_lens_bin_t *_bin_of(const chip_priv_t *p)
{
    return p->lens_from_file && p->lens_bin ? p->lens_bin : p->calib_lens.load(std::memory_order_acquire);
}

static bool _param_of(const chip_priv_t *p, tqcam_lens_param_t *out, int w, int h)
{
    const tq_lens_bin_t *bin = _bin_of(p);
    const tqcam_lens_param_t rec = bin                ? lens_of_bin(bin)
                                   : p->has_file_lens ? p->file_lens
                                                      : lens_default_get(p->family->lens);
    return lens_scale(rec, w, h, out, p->family->name.lens_param_get);
}

const tq_lens_bin_t *chip_lens_rec_get(tqcam_drv_t *drv)
{
    const chip_priv_t *p = chip_priv(drv);
    return p ? _bin_of(p) : nullptr;
}

bool chip_lens_param_get(tqcam_drv_t *drv, tqcam_lens_param_t *out, int w, int h, int)
{
    const chip_priv_t *p = chip_priv(drv);
    return p && _param_of(p, out, w, h);
}

// The map takes long to make and may be in use on other threads, so that the same lens isn't mapped again.
void chip_lens_update(chip_priv_t *p, tqcam_lens_param_t *lens)
{
    memset(lens, 0, sizeof(*lens));
    if (!_param_of(p, lens, static_cast<int>(p->img_w), static_cast<int>(p->img_h)))
        return;
    tq_calib_len_map_t *map = tq_priv_get_len_calib_handle(p->dev);
    if (!map || !memcmp(&p->mapped_lens, lens, sizeof(*lens)))
        return;
    tq_calib_len_update_map(map, lens);
    p->mapped_lens = *lens;
}
