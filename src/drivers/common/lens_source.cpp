#include "drivers/common/lens_source.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "log/log.h"

tqcam_lens_param_t lens_of_bin(const tq_lens_bin_t *bin)
{
    tqcam_lens_param_t p = {};
    p.cx = bin->cx;
    p.cy = bin->cy;
    p.fx = bin->fx;
    p.fy = bin->fy;
    for (int i = 0; i < TQ_LENS_DCOEF_NUM; i++)
        p.dcoef[i] = bin->dcoef[i];
    p.n_dcoef = std::min<int>(bin->n_dcoef, TQ_LENS_DCOEF_NUM);
    p.img_w = bin->img_w;
    p.img_h = bin->img_h;
    return p;
}

tqcam_lens_param_t lens_default_get(lens_default_t *def)
{
    std::lock_guard lock(def->lock);
    return def->rec;
}

bool lens_search(tqcam_dev_t *dev, lens_default_t *def, tq_lens_bin_t **bin)
{
    char name[256];
    for (const bool with_serial : {true, false}) {
        if (tqcam_lens_param_filename(dev, name, sizeof(name), true, with_serial)) {
            *bin = tqcam_param_len_load_bin_file(name);
            if (*bin) {
                std::lock_guard lock(def->lock);
                def->rec = lens_of_bin(*bin);
                return false;
            }
        }
        tqcam_lens_param_t rec;
        if (tqcam_lens_param_filename(dev, name, sizeof(name), false, with_serial) &&
            tqcam_param_len_load_2d_file(&rec, name)) {
            std::lock_guard lock(def->lock);
            def->rec = rec;
            return true;
        }
    }
    return false;
}

bool lens_scale(const tqcam_lens_param_t &rec, int w, int h, tqcam_lens_param_t *out, const char *caller)
{
    if (w < 1 || h < 1)
        return false;
    const uint32_t ratio_w = rec.img_w / static_cast<uint32_t>(w);
    const uint32_t ratio_h = rec.img_h / static_cast<uint32_t>(h);
    if (!ratio_w || !ratio_h || rec.img_w % static_cast<uint32_t>(w) ||
        rec.img_h % static_cast<uint32_t>(h)) {
        LOG_AS(5, "WRN", caller, "[%s]lens param not match the frame size: lens: %dx%d, frame: %dx%d\n",
               rec.img_w, rec.img_h, w, h);
        return false;
    }
    *out = rec;
    out->cx /= ratio_w;
    out->fx /= ratio_w;
    out->cy /= ratio_h;
    out->fy /= ratio_h;
    out->img_w = static_cast<uint32_t>(w);
    out->img_h = static_cast<uint32_t>(h);
    return true;
}

static size_t _lens_bytes(const tq_lens_bin_t *lens)
{
    return sizeof(*lens) + 4 * (size_t{lens->n_grad} + lens->n_reflect);
}

const tq_lens_bin_t *lens_pool_t::keep(tq_lens_bin_t *lens)
{
    if (!lens)
        return nullptr;
    for (const node_t *node = head; node; node = node->next) {
        if (_lens_bytes(node->lens) == _lens_bytes(lens) && !memcmp(node->lens, lens, _lens_bytes(lens))) {
            tqcam_param_len_unload(lens);
            return node->lens;
        }
    }
    node_t *node = new (std::nothrow) node_t{lens, head};
    if (!node) {
        tqcam_param_len_unload(lens);
        return nullptr;
    }
    head = node;
    return lens;
}

lens_pool_t::~lens_pool_t()
{
    while (head) {
        node_t *node = head;
        head = node->next;
        tqcam_param_len_unload(node->lens);
        delete node;
    }
}
