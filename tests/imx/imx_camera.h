// An open camera of the SONY family without hardware, and frames for it.
#pragma once

#include "../support/link_camera.h"
#include "drivers/imx/imx_priv.h"
#include "tq_stream.h"

class ImxCamera : public LinkCamera {
  public:
    explicit ImxCamera(const std::string &product = "XX-S1-YY", uint32_t format = IMX_FMT_PACKED,
                       uint32_t f0 = 120000000, uint32_t f1 = 0)
        : LinkCamera(product)
    {
        set_limits(640, 480, 30, 1000);
        set_words(TQCAM_PARAM_MOD_FREQ, {f0});
        set_words(TQCAM_PARAM_DUAL_FREQ, {f0, f1});
        set_words(TQCAM_PARAM_FORMAT, {format});
    }
    imx_priv_t *priv() { return imx_priv(drv()); }
};

// A frame: for each sub-frame one value that all its pixels have.
struct ImxFrame {
    tqcam_frame_info_t info = {};
    std::vector<uint8_t> raw;

    ImxFrame(uint16_t format, const std::vector<int> &values, uint32_t w = 8, uint32_t h = 4,
             uint32_t meta = 5)
    {
        const imx_format_t *f = imx_format_find(format);
        info.frame_format = format;
        info.width = w;
        info.height = h;
        info.meta_size = meta;
        const size_t n = size_t{w} * h;
        raw.resize(f->subframes * (meta + (f->packed ? n * 3 / 2 : n * 2)), 0xEE);
        info.frame_size = static_cast<uint32_t>(raw.size());
        for (uint32_t k = 0; k < f->subframes; k++)
            for (size_t i = 0; i < n; i++)
                put(k, i, values[k]);
    }
    // bad: as a word that can't be used
    void put(uint32_t subframe, size_t pixel, int value, bool bad = false)
    {
        const imx_format_t *f = imx_format_find(info.frame_format);
        const imx_layout_t layout = imx_layout_of(*f, &info);
        uint8_t *at = const_cast<uint8_t *>(layout.at(raw.data(), subframe));
        if (!f->packed) {
            const uint32_t v = static_cast<uint32_t>(value & 0x7FF) << 4 | (bad ? 0x8000 : 0);
            at[2 * pixel] = static_cast<uint8_t>(v >> 8);
            at[2 * pixel + 1] = static_cast<uint8_t>(v);
            return;
        }
        uint64_t group = 0;
        at += pixel / 4 * 6;
        memcpy(&group, at, 6);
        const int shift = static_cast<int>(pixel % 4) * 12;
        group = (group & ~(uint64_t{0xFFF} << shift)) | static_cast<uint64_t>(value & 0xFFF) << shift;
        memcpy(at, &group, 6);
    }
};
