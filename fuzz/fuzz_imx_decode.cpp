// The input as frames of a camera of the SONY family: its first bytes are settings of the driver and what the
// header says of the frame, the rest is the frame. All kinds are decoded, and the header goes in too.
#include <cstring>
#include <vector>

#include "../tests/imx/imx_camera.h"
#include "tq_log.h"

namespace {
struct settings_t {
    uint16_t format;
    uint8_t w, h;
    uint32_t meta;
    uint16_t filters;       // switches
    uint8_t freqs;          // 0: none, 1: one, 2: two; and 4: the same with bit 7
    uint8_t calib;          // 1: mounted, 2: by pixel, 4: planes of another size, 8: wild values
    uint16_t wide;          // added to the width, 0 in most
    uint16_t offset, scale; // of the user
    uint32_t frame_size;    // 0: as long as the frame is
};
static_assert(sizeof(settings_t) == 24);

void mount(imx_priv_t *p, const settings_t &s, const tqcam_frame_info_t &info)
{
    const uint32_t freqs[] = {120000000, 40000000};
    const int count = s.freqs % 3;
    p->mod_freq0 = count > 0 ? freqs[0] : 0;
    p->mod_freq1 = count > 1 ? freqs[s.freqs >> 2 & 1] : 0;
    p->dmax = p->dmax0 = count > 0 ? 1249 : 0;
    p->dmax1 = count > 1 ? 3747 : 0;
    p->roi = {};
    for (int i = 0; i < 2; i++) {
        calib_result_t &c = p->rows[i].calib;
        calib_result_reset(&c);
        const size_t n = size_t{info.width} * info.height;
        if (!(s.calib & 1) || i >= count || n > 65536)
            continue;
        c.blk.freq = i ? p->mod_freq1 : p->mod_freq0;
        c.blk.img_w = info.width;
        c.blk.img_h = info.height + (s.calib & 4 ? 0u - 1u : 0u);
        c.planes = static_cast<float *>(calloc(2 * n + 1, sizeof(float)));
        for (size_t k = 0; k < 2 * n; k++)
            memcpy(c.planes + k, reinterpret_cast<const uint8_t *>(&s) + (s.calib & 8 ? k % 20 : 0), 4);
        c.amp = c.omega = s.calib & 8 ? c.planes[0] : 0.5f;
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static ImxCamera *cam = [] {
        tq_log_init(nullptr, "/dev/null", "FUZZ");
        tq_log_cfg(nullptr, TQ_LOG_CONSOLE, TQ_LOG_SILENT, 0);
        tq_log_cfg(nullptr, TQ_LOG_FILE, TQ_LOG_TRACE, 0);
        auto *c = new ImxCamera();
        return c->open() ? c : nullptr;
    }();
    settings_t s;
    if (!cam || size < sizeof(s))
        return 0;
    memcpy(&s, data, sizeof(s));
    const std::vector<uint8_t> raw(data + sizeof(s), data + size);
    cam->sent.clear();
    imx_priv_t *p = cam->priv();

    tq_frame_hdr_t hdr;
    static_assert(sizeof(hdr) == sizeof(s));
    memcpy(&hdr, &s, sizeof(hdr));
    tqcam_frame_info_t info;
    const auto len = static_cast<uint32_t>(raw.size());
    cam->ops()->frame_get_info(cam->drv(), &info, &hdr, raw.data(), len);

    info = {};
    info.frame_format = s.format;
    info.frame_size = s.frame_size ? s.frame_size : len;
    info.width = s.w + uint32_t{s.wide} * s.wide;
    info.height = s.h;
    info.meta_size = s.meta;
    if (info.frame_size <= len)
        cam->ops()->frame_raw_proc(cam->drv(), const_cast<uint8_t *>(raw.data()), 1, &info);

    mount(p, s, info);
    relaxed_t<uint8_t> *const switches[] = {&p->f_en_minamp,     &p->f_en_hysteresis, &p->f_en_median,
                                            &p->f_en_bpf2d_iir,  &p->f_en_flyfilter,  &p->f_en_fill_hole,
                                            &p->f_en_sync_check, &p->f_en_offset,     &p->f_en_temp_corr};
    for (size_t i = 0; i < sizeof(switches) / sizeof(*switches); i++)
        *switches[i] = s.filters >> i & 1;
    p->f_en_pix_calib = s.calib >> 1 & 1;
    p->min_amp = s.offset;
    p->user_offset = static_cast<int16_t>(s.offset);
    p->user_scale = static_cast<float>(s.scale) / 1000;
    if (info.width != p->img_w || info.height != p->img_h) {
        const bool small = info.width >= 2 && info.height >= 2 && info.width <= 64;
        p->img_w = small ? info.width : 640;
        p->img_h = small ? info.height : 480;
        p->bpf.sigma_range = -1; // made anew
    }
    const uint64_t pixels = uint64_t{info.width} * info.height;
    std::vector<uint16_t> dst(pixels < 65536 ? pixels : 16);
    for (int kind = 0; kind <= 3; kind++) {
        const int n = cam->ops()->frame_decode(cam->drv(), dst.data(), static_cast<uint32_t>(2 * dst.size()),
                                               kind, raw.data(), len, &info);
        if (n != -1 && static_cast<uint64_t>(n) != 2 * pixels)
            abort();
    }
    mount(p, {}, info); // frees
    return 0;
}
