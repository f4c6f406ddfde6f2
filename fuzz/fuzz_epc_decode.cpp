// A frame of the E family from its header to images of every kind, on open cameras of three chips with
// filters, frequency, calibration and region chosen by the input. The frame's information may lie.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "../tests/epc/epc_camera.h"
#include "tq_log.h"

namespace {
EpcCamera *open_camera(const char *chip)
{
    auto *camera = new EpcCamera(chip);
    if (!camera->open())
        abort();
    return camera;
}

struct input_t {
    const uint8_t *data;
    size_t size;

    template <typename T> T take()
    {
        T v = {};
        const size_t n = std::min(size, sizeof(v));
        memcpy(&v, data, n);
        data += n;
        size -= n;
        return v;
    }
};

// A mounted calibration of a small image, its planes repeating what the input holds.
void mount(epc_priv_t *p, input_t *in)
{
    calib_result_t *c = &p->calib;
    calib_result_reset(c);
    c->blk.freq = p->mod_freq0;
    c->blk.img_w = 1 + in->take<uint8_t>() % 64;
    c->blk.img_h = 1 + in->take<uint8_t>() % 64;
    c->slope_k = in->take<int32_t>();
    c->offset = in->take<int32_t>();
    c->amp = in->take<float>();
    c->omega = in->take<float>();
    c->pha = in->take<float>();
    c->ofs = in->take<float>();
    for (float &coef : c->tcoef)
        coef = in->take<float>();
    c->tcoef_hdr.freq = in->take<uint32_t>();
    const size_t n = size_t{2} * c->blk.img_w * c->blk.img_h;
    c->planes = static_cast<float *>(calloc(n, sizeof(float))); // of the exact size, unlike the loader's
    const float values[4] = {in->take<float>(), in->take<float>(), in->take<float>(), in->take<float>()};
    for (size_t i = 0; i < n; i++)
        c->planes[i] = values[i % 4];
    p->roi = {};
    if (in->take<uint8_t>() & 1) {
        const calib_roi_t roi = in->take<calib_roi_t>();
        if (calib_drnu_result_apply_roi(c, &roi))
            p->roi = roi;
    }
    c->roi = p->roi;
    p->calib_mounted = 1;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static EpcCamera *const cameras[] = {(tq_log_cfg(nullptr, 0, 7, 0), open_camera("E1")), open_camera("E3"),
                                         open_camera("E5")};
    input_t in = {data, size};
    EpcCamera *camera = cameras[in.take<uint8_t>() % 3];
    camera->take_sent();
    camera->reg_writes.clear();
    tqcam_drv_t *drv = camera->drv();
    const tqcam_drv_ops_t *ops = camera->ops();
    epc_priv_t *p = camera->priv();

    p->user_offset = 0;
    p->hdr_en = p->sport_en = p->sport_mode = 0;
    p->sys_scale = 1;
    p->sys_offset = 0;
    const uint32_t on = in.take<uint32_t>();
    for (const uint32_t id : {1u, 2u, 4u, 5u, 6u, 9u, 10u, 12u, 13u, 14u}) {
        const tqcam_filter_arg_t arg = in.take<tqcam_filter_arg_t>();
        on >> id & 1 ? ops->filter_enable(drv, id, &arg) : ops->filter_disable(drv, id);
    }
    ops->on_update_intg_time(drv, on >> 16 & 1, 1);
    ops->on_update_fps(drv, on >> 17 & 63);
    if (on >> 24 & 1) {
        const calib_roi_t roi = in.take<calib_roi_t>();
        ops->on_update_roi(drv, reinterpret_cast<const uint8_t *>(&roi));
    }
    epc_event_freq_change(drv, in.take<uint32_t>(), 0);
    if (on >> 25 & 1)
        mount(p, &in);
    if (on >> 26 & 1) {
        p->sys_scale = in.take<float>();
        p->sys_offset = in.take<float>();
    }

    const tq_frame_hdr_t hdr = in.take<tq_frame_hdr_t>();
    tqcam_frame_info_t info = {}, made = {};
    const bool usable = ops->frame_get_info(drv, &info, &hdr, in.data, static_cast<uint32_t>(in.size));
    const std::unique_ptr<uint8_t[]> raw(new uint8_t[in.size]); // exact, for the sanitizer
    memcpy(raw.get(), in.data, in.size);
    if (usable && info.frame_size <= in.size) {
        ops->frame_raw_proc(drv, raw.get(), 1, &info);
        ops->frame_need_data(drv, raw.get(), 1, &made);
    }
    if (on >> 27 & 1) { // it lies
        info.frame_size ^= hdr.time;
        info.height += hdr.aux % 7;
    }
    const uint64_t pixels = uint64_t{info.width} * info.height;
    std::vector<uint16_t> image(pixels < 65536 ? pixels : 16);
    for (const int kind : {1, 2, 0, 2, 3})
        ops->frame_decode(drv, image.data(), static_cast<uint32_t>(2 * image.size()), kind, raw.get(),
                          static_cast<uint32_t>(in.size), &info);
    return 0;
}
