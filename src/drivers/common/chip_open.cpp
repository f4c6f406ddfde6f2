// How a device of any family comes to life and goes.
#include <cstdlib>

#include "drivers/common/chip.h"
#include "drivers/common/dev_param.h"
#include "log/log.h"

static void _malloc_failed(const chip_family_t *family)
{
    LOG_AS(6, "ERR", family->name.init, "[%s]malloc failed\n");
    exit(-3);
}

void chip_open(tqcam_drv_t *drv, tqcam_dev_t *dev, const chip_family_t *family, chip_priv_t *p)
{
    drv->dev = dev;
    if (!p)
        _malloc_failed(family);
    p->family = family;
    p->dev = dev;
    p->older = chip_priv(drv);
    drv->priv = p;
    if (!p->calib_lock.init() || !p->bpf.lock.init() || !p->decode_lock.init()) {
        LOG_AS(6, "ERR", family->name.init, "[%s]pthread_mutex_init failed\n");
        exit(-1);
    }
    p->lens_from_file = lens_search(dev, family->lens, &p->lens_bin);
    const tqcam_lens_param_t lens = lens_default_get(family->lens);
    if (tq_calib_len_map_t *map = tq_priv_get_len_calib_handle(dev)) {
        tq_calib_len_init_map(map, &lens);
        p->mapped_lens = lens;
    }
}

void chip_open_end(chip_priv_t *p, uint32_t gray_bytes, uint16_t bpf_range_max, float bpf_sigma_spatial,
                   float bpf_sigma_range)
{
    if (!p->gray_buf.need(gray_bytes))
        _malloc_failed(p->family);
    bilateral_make(&p->bpf, p->img_w, p->img_h, 0, bpf_range_max, bpf_sigma_spatial, bpf_sigma_range,
                   p->family->name.init);
    dev_time_set(p->dev);
}

// A row binds one device. Where a second one took it over, the first one's record goes here too: neither may
// use the row any more.
void chip_uninit(tqcam_drv_t *drv)
{
    while (chip_priv_t *p = chip_priv(drv)) {
        drv->priv = p->older;
        bilateral_free(&p->bpf);
        if (p->dev == drv->dev)
            tq_calib_len_uninit_map(tq_priv_get_len_calib_handle(p->dev));
        {
            DrvLock lock(p->calib_lock);
            p->f_en_gray = 0;
            p->gray_buf.release();
            p->family->unmount(p);
        }
        p->calib_lock.destroy();
        p->bpf.lock.destroy();
        p->decode_lock.destroy();
        tqcam_param_len_unload(p->lens_bin);
        p->family->release(p);
    }
}

int chip_reserved_a(tqcam_drv_t *, int, int)
{
    return 0;
}
int chip_reserved_b(tqcam_drv_t *, int, int)
{
    return 1;
}
