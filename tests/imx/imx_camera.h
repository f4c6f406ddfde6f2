// An open camera of the SONY family without hardware: the real API and driver on a link that answers from a
// map and notes what it is sent. Files are looked for in the working directory. And frames for it.
#pragma once

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "drivers/imx/imx_priv.h"
#include "link/link_ops.h"
#include "tq_stream.h"

class ImxCamera {
  public:
    std::map<uint32_t, std::vector<uint8_t>> params; // answers; a set parameter is answered too
    std::set<uint32_t> fail_get, fail_set;           // ids that the link refuses
    std::string sent;                                // "id=value " of each parameter set, bytes in hex
    tqcam_dev_t dev = {};
    int result = 0; // of the last decode

    explicit ImxCamera(const std::string &product = "XX-S1-YY", uint32_t format = IMX_FMT_PACKED,
                       uint32_t f0 = 120000000, uint32_t f1 = 0)
    {
        tqcam_path_set("");
        set_text(TQCAM_PARAM_VENDOR, "maker");
        set_text(TQCAM_PARAM_PRODUCT, product);
        set_words(TQCAM_PARAM_SERIAL, {1, 0, 0});
        params[TQCAM_PARAM_CHIP_ID] = {5, 0, 6, 0, 7, 0};
        params[TQCAM_PARAM_LIMITS] = {128, 2, 224, 1, 2, 0, 30, 0, 232, 3, 0, 0};
        params[TQCAM_PARAM_VERSION] = params[TQCAM_PARAM_CALIB_INFO] = {};
        set_words(TQCAM_PARAM_MOD_FREQ, {f0});
        set_words(TQCAM_PARAM_DUAL_FREQ, {f0, f1});
        set_words(TQCAM_PARAM_FORMAT, {format});
    }
    ~ImxCamera() { tqcam_dev_close(&dev); }
    ImxCamera(const ImxCamera &) = delete;
    ImxCamera &operator=(const ImxCamera &) = delete;

    static constexpr const char *CALIB_FILE = "tqcam_param_458759.bin"; // serial 1 ^ 0x70006

    bool open()
    {
        dev.priv = new tqcam_dev_priv_t();
        dev.priv->ll.ops = &OPS;
        dev.priv->ll.address.usb.speed = 3;
        dev.priv->ll.priv = this;
        return tqcam_dev_open(&dev) != nullptr;
    }

    tqcam_drv_t *drv() { return dev.priv->drv; }
    const tqcam_drv_ops_t *ops() { return drv()->ops; }
    imx_priv_t *imx() { return imx_priv(drv()); }
    std::string take_sent() { return std::exchange(sent, {}); }

    void set_text(uint32_t id, const std::string &text) { params[id].assign(text.begin(), text.end()); }
    void set_words(uint32_t id, const std::vector<uint32_t> &words)
    {
        params[id].resize(4 * words.size());
        memcpy(params[id].data(), words.data(), 4 * words.size());
    }
    // A value, or two.
    bool enable(uint32_t id, uint16_t a = 0, uint16_t b = 0)
    {
        tqcam_filter_arg_t arg = {};
        arg.hdr.intg1_us = a;
        arg.hdr.intg2_us = b;
        return ops()->filter_enable(drv(), id, &arg);
    }
    bool disable(uint32_t id) { return ops()->filter_disable(drv(), id); }

    // An image, or nothing when the decode fails.
    std::vector<uint16_t> decode(int kind, const std::vector<uint8_t> &raw, const tqcam_frame_info_t &info)
    {
        std::vector<uint16_t> image(size_t{info.width} * info.height, 0xBEEF);
        result = ops()->frame_decode(drv(), image.data(), static_cast<uint32_t>(2 * image.size()), kind,
                                     raw.data(), static_cast<uint32_t>(raw.size()), &info);
        return result == static_cast<int>(2 * image.size()) ? image : std::vector<uint16_t>();
    }

  private:
    static ImxCamera *of(tqcam_ll_dev_t *ll) { return static_cast<ImxCamera *>(ll->priv); }
    static const tqcam_ll_ops_t OPS;
};

inline const tqcam_ll_ops_t ImxCamera::OPS = {
    .init = nullptr,
    .uninit = nullptr,
    .set_debug = nullptr,
    .dev_open = [](tqcam_ll_dev_t *ll) { return ll; },
    .dev_open_by_fd = nullptr,
    .dev_close = [](tqcam_ll_dev_t *) {},
    .dev_list = nullptr,
    .exe_cmd = nullptr,
    .tx_data = nullptr,
    .cap_abort = [](tqcam_ll_dev_t *) {},
    .cap_wait = [](tqcam_ll_dev_t *) {},
    .cap_start = [](tqcam_ll_dev_t *, uint32_t, tqcam_ll_rx_cb_t, void *) { return true; },
    .cap_stop = [](tqcam_ll_dev_t *) { return true; },
    .cap_seek = nullptr,
    .dev_reset = nullptr,
    .reg_write = nullptr,
    .reg_read = nullptr,
    .param_set =
        [](tqcam_ll_dev_t *ll, const tqcam_ll_param_t *items, int count) {
            for (int i = 0; i < count; i++) {
                if (of(ll)->fail_set.count(items[i].id))
                    return false;
                of(ll)->params[items[i].id].assign(items[i].value, items[i].value + items[i].len);
                if (items[i].id == TQCAM_PARAM_DEV_MODE || items[i].id == 19) // mode and time, at open
                    continue;
                of(ll)->sent += std::to_string(items[i].id) + "=";
                for (int b = 0; b < items[i].len; b++) {
                    char hex[3];
                    snprintf(hex, sizeof(hex), "%02x", items[i].value[b]);
                    of(ll)->sent += hex;
                }
                of(ll)->sent += i + 1 < count ? "," : " ";
            }
            return true;
        },
    .param_get =
        [](tqcam_ll_dev_t *ll, tqcam_ll_param_t *items, int count) {
            for (int i = 0; i < count; i++) {
                if (of(ll)->fail_get.count(items[i].id))
                    return false;
                const auto &value = of(ll)->params[items[i].id];
                memset(items[i].value, 0, sizeof(items[i].value));
                items[i].len = static_cast<uint8_t>(value.size());
                std::copy(value.begin(), value.end(), items[i].value);
            }
            return true;
        },
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
