// The input as frames of a camera of the SONY family: its first 24 bytes are settings of the driver and what
// the header says of the frame, the rest is the frame. All kinds are decoded, and the header goes in too.
#include "../tests/imx/imx_camera.h"
#include "fuzz_camera.h"

// freqs: 0 to 2 of them; and 4: another second one
// how:   1: calibrated, 2: by pixel, 4: planes of another size, 8: wild values
static void mount(imx_priv_t *p, int freqs, int how, fuzz_input values, const tqcam_frame_info_t &info)
{
    const int count = freqs % 3;
    p->mod_freq0 = count > 0 ? 120000000 : 0;
    p->mod_freq1 = count < 2 ? 0 : freqs & 4 ? 40000000 : 120000000;
    p->dmax = p->dmax0 = count > 0 ? 1249 : 0;
    p->dmax1 = count > 1 ? 3747 : 0;
    p->roi = {};
    for (int i = 0; i < 2; i++) {
        calib_result_t &c = p->rows[i].calib;
        calib_result_reset(&c);
        const size_t n = size_t{info.width} * info.height;
        if (!(how & 1) || i >= count || n > 65536)
            continue;
        c.blk.freq = i ? p->mod_freq1 : p->mod_freq0;
        c.blk.img_w = info.width;
        c.blk.img_h = info.height + (how & 4 ? 0u - 1u : 0u);
        c.planes = static_cast<float *>(calloc(2 * n + 1, sizeof(float)));
        for (size_t k = 0; k < 2 * n; k++)
            memcpy(c.planes + k, values.data + (how & 8 ? k % 20 : 0), 4);
        c.amp = c.omega = how & 8 ? c.planes[0] : 0.5f;
    }
}

void fuzz(fuzz_input in)
{
    static ImxCamera cam;
    require(cam.dev.priv || cam.open());
    const fuzz_input whole = in;
    const auto hdr = fuzz_input(in).take<tq_frame_hdr_t>(); // the same bytes
    if (in.size < sizeof hdr)
        return;
    tqcam_frame_info_t info = {}, told;
    info.frame_format = in.take<uint16_t>();
    info.width = in.take<uint8_t>();
    info.height = in.take<uint8_t>();
    info.meta_size = in.take<uint32_t>();
    const auto filters = in.take<uint16_t>();
    const auto freqs = in.take<uint8_t>(), how = in.take<uint8_t>();
    const auto wide = in.take<uint16_t>(), offset = in.take<uint16_t>(), scale = in.take<uint16_t>();
    const auto frame_size = in.take<uint32_t>();
    info.width += uint32_t{wide} * wide; // 0 in most
    std::vector<uint8_t> raw = in.take_bytes();
    const auto len = static_cast<uint32_t>(raw.size());
    info.frame_size = frame_size ? frame_size : len;

    cam.sent.clear();
    cam.ops()->frame_get_info(cam.drv(), &told, &hdr, raw.data(), len);
    if (info.frame_size <= len)
        cam.ops()->frame_raw_proc(cam.drv(), raw.data(), 1, &info);
    imx_priv_t *p = cam.priv();
    mount(p, freqs, how, whole, info);
    relaxed_t<uint8_t> *const switches[] = {&p->f_en_minamp,     &p->f_en_hysteresis, &p->f_en_median,
                                            &p->f_en_bpf2d_iir,  &p->f_en_flyfilter,  &p->f_en_fill_hole,
                                            &p->f_en_sync_check, &p->f_en_offset,     &p->f_en_temp_corr};
    for (size_t i = 0; i < std::size(switches); i++)
        *switches[i] = filters >> i & 1;
    p->f_en_pix_calib = how >> 1 & 1;
    p->min_amp = offset;
    p->user_offset = static_cast<int16_t>(offset);
    p->user_scale = static_cast<float>(scale) / 1000;
    if (info.width != p->img_w || info.height != p->img_h) {
        const bool small = info.width >= 2 && info.height >= 2 && info.width <= 64;
        p->img_w = small ? info.width : 640;
        p->img_h = small ? info.height : 480;
        p->bpf.sigma_range = -1; // made anew
    }
    decode_all(cam, raw, info);
}
