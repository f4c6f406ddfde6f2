// A frame of the E family from its header to images of every kind, on open cameras of three chips with
// filters, frequency, calibration and region chosen by the input. The frame's information may lie.
#include "../tests/epc/epc_camera.h"
#include "fuzz_camera.h"

// A mounted calibration of a small image, its planes repeating what the input holds.
static void mount(epc_priv_t *p, fuzz_input *in)
{
    calib_result_t *c = &p->calib;
    calib_result_reset(c);
    c->blk.freq = p->mod_freq0;
    c->blk.img_w = 1 + in->take<uint8_t>() % 64;
    c->blk.img_h = 1 + in->take<uint8_t>() % 64;
    c->slope_k = in->take<int32_t>();
    c->offset = in->take<int32_t>();
    for (float *v : {&c->amp, &c->omega, &c->pha, &c->ofs})
        in->take_into(v, sizeof *v);
    in->take_into(c->tcoef, sizeof c->tcoef);
    c->tcoef_hdr.freq = in->take<uint32_t>();
    const size_t n = size_t{2} * c->blk.img_w * c->blk.img_h;
    c->planes = static_cast<float *>(calloc(n, sizeof(float))); // of the exact size, unlike the loader's
    float values[4] = {};
    in->take_into(values, sizeof values);
    for (size_t i = 0; i < n; i++)
        c->planes[i] = values[i % 4];
    p->roi = {};
    if (in->take<uint8_t>() & 1) {
        const auto roi = in->take<calib_roi_t>();
        if (calib_drnu_result_apply_roi(c, &roi))
            p->roi = roi;
    }
    c->roi = p->roi;
    p->calib_mounted = 1;
}

void fuzz(fuzz_input in)
{
    static EpcCamera cameras[] = {EpcCamera("E1"), EpcCamera("E3"), EpcCamera("E5")};
    EpcCamera &camera = cameras[in.take<uint8_t>() % 3];
    require(camera.dev.priv || camera.open());
    camera.take_sent();
    camera.reg_writes.clear();
    tqcam_drv_t *drv = camera.drv();
    const tqcam_drv_ops_t *ops = camera.ops();
    epc_priv_t *p = camera.priv();

    p->user_offset = p->hdr_en = p->sport_en = p->sport_mode = 0;
    p->sys_scale = 1, p->sys_offset = 0;
    const auto on = in.take<uint32_t>();
    for (const uint32_t id : {1u, 2u, 4u, 5u, 6u, 9u, 10u, 12u, 13u, 14u}) {
        const auto arg = in.take<tqcam_filter_arg_t>();
        on >> id & 1 ? ops->filter_enable(drv, id, &arg) : ops->filter_disable(drv, id);
    }
    ops->on_update_intg_time(drv, on >> 16 & 1, 1);
    ops->on_update_fps(drv, on >> 17 & 63);
    if (on >> 24 & 1) {
        const auto roi = in.take<calib_roi_t>();
        ops->on_update_roi(drv, reinterpret_cast<const uint8_t *>(&roi));
    }
    epc_event_freq_change(drv, in.take<uint32_t>(), 0);
    if (on >> 25 & 1)
        mount(p, &in);
    if (on >> 26 & 1) {
        p->sys_scale = in.take<float>();
        p->sys_offset = in.take<float>();
    }

    const auto hdr = in.take<tq_frame_hdr_t>();
    std::vector<uint8_t> raw = in.take_bytes();
    const auto bytes = static_cast<uint32_t>(raw.size());
    tqcam_frame_info_t info = {}, made = {};
    if (ops->frame_get_info(drv, &info, &hdr, raw.data(), bytes) && info.frame_size <= bytes) {
        ops->frame_raw_proc(drv, raw.data(), 1, &info);
        ops->frame_need_data(drv, raw.data(), 1, &made);
    }
    if (on >> 27 & 1) { // it lies
        info.frame_size ^= hdr.time;
        info.height += hdr.aux % 7;
    }
    decode_all(camera, raw, info);
}
