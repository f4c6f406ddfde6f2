// Cameras without hardware. camera_params_t is what a camera answers when it's asked for parameters;
// LinkCamera is an open camera of a chip family: the real API and driver on a link that answers from maps and
// notes what it is sent. Files are looked for in the working directory.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "api/device.h"
#include "drivers/driver.h"
#include "link/link_ops.h"

struct camera_params_t {
    std::map<uint32_t, std::vector<uint8_t>> params;

    explicit camera_params_t(const std::string &product)
    {
        set_text(TQCAM_PARAM_VENDOR, "maker");
        set_text(TQCAM_PARAM_PRODUCT, product);
        set_words(TQCAM_PARAM_SERIAL, {1, 0, 0});
        params[TQCAM_PARAM_CHIP_ID] = {5, 0, 6, 0, 7, 0};
        set_limits(320, 240, 60, 1500);
        params[TQCAM_PARAM_VERSION] = params[TQCAM_PARAM_CALIB_INFO] = {};
    }
    void set_text(uint32_t id, const std::string &text) { params[id].assign(text.begin(), text.end()); }
    void set_words(uint32_t id, const std::vector<uint32_t> &words)
    {
        params[id].resize(4 * words.size());
        memcpy(params[id].data(), words.data(), 4 * words.size());
    }
    void set_limits(uint16_t w, uint16_t h, uint16_t fps, uint16_t intg_us)
    {
        std::vector<uint8_t> &v = params[TQCAM_PARAM_LIMITS];
        v.clear();
        for (const uint16_t word : {w, h, uint16_t{2}, fps, intg_us, uint16_t{0}}) {
            v.push_back(static_cast<uint8_t>(word));
            v.push_back(static_cast<uint8_t>(word >> 8));
        }
    }
    void answer(tqcam_ll_param_t *item)
    {
        const std::vector<uint8_t> &value = params[item->id];
        memset(item->value, 0, sizeof(item->value));
        item->len = static_cast<uint8_t>(value.size());
        std::copy_n(value.begin(), std::min(value.size(), sizeof(item->value)), item->value);
    }
};

class LinkCamera : public camera_params_t { // a set parameter is answered, too
  public:
    std::map<uint32_t, uint32_t> regs;
    std::set<uint32_t> fail_get, fail_set, fail_reg; // ids and addresses that the link refuses
    std::string sent; // "id=value " of each call that sets parameters, commas between those of one, in hex
    std::string reg_writes; // "addr=value " of each register
    tqcam_dev_t dev = {};
    int result = 0; // of the last decode

    explicit LinkCamera(const std::string &product) : camera_params_t(product) { tqcam_path_set(""); }
    ~LinkCamera() { close(); }
    LinkCamera(const LinkCamera &) = delete;
    LinkCamera &operator=(const LinkCamera &) = delete;

    static constexpr const char *CALIB_FILE = "tqcam_param_458759.bin"; // serial 1 ^ 0x70006

    bool open(uint32_t if_type = TQCAM_IF_USB)
    {
        dev.priv = new tqcam_dev_priv_t();
        dev.priv->ll.ops = &OPS;
        dev.priv->ll.address.if_type = if_type;
        if (if_type == TQCAM_IF_USB)
            dev.priv->ll.address.usb.speed = 3;
        dev.priv->ll.priv = this;
        return tqcam_dev_open(&dev) != nullptr;
    }
    void close() { tqcam_dev_close(&dev); }

    tqcam_drv_t *drv() { return dev.priv->drv; }
    const tqcam_drv_ops_t *ops() { return drv()->ops; }
    // What was sent since the last call.
    std::string take_sent() { return std::exchange(sent, {}); }

    // The argument as two words, or the first two bytes of the first one.
    bool enable(uint32_t id, uint16_t a = 0, uint16_t b = 0)
    {
        tqcam_filter_arg_t arg = {};
        arg.hdr.intg1_us = a;
        arg.hdr.intg2_us = b;
        return ops()->filter_enable(drv(), id, &arg);
    }
    bool disable(uint32_t id) { return ops()->filter_disable(drv(), id); }

    // An image, or nothing when the decode fails.
    template <typename T>
    std::vector<uint16_t> decode(int kind, const std::vector<T> &raw, const tqcam_frame_info_t &info)
    {
        std::vector<uint16_t> image(size_t{info.width} * info.height, 0xBEEF);
        result = ops()->frame_decode(drv(), image.data(), static_cast<uint32_t>(2 * image.size()), kind,
                                     raw.data(), static_cast<uint32_t>(sizeof(T) * raw.size()), &info);
        return result == static_cast<int>(2 * image.size()) ? image : std::vector<uint16_t>();
    }

  private:
    static LinkCamera *_of(tqcam_ll_dev_t *ll) { return static_cast<LinkCamera *>(ll->priv); }
    bool _set(const tqcam_ll_param_t &item)
    {
        if (fail_set.count(item.id))
            return false;
        params[item.id].assign(item.value, item.value + item.len);
        if (item.id == TQCAM_PARAM_DEV_MODE || item.id == 19) // mode and time, at open
            return true;
        sent += std::to_string(item.id) + "=";
        for (int b = 0; b < item.len; b++) {
            char hex[3];
            snprintf(hex, sizeof(hex), "%02x", item.value[b]);
            sent += hex;
        }
        return true;
    }
    bool _write_reg(uint32_t addr, std::span<const uint32_t> data)
    {
        for (uint32_t i = 0; i < data.size(); i++) {
            reg_writes += std::to_string(addr + i) + "=" + std::to_string(data[i]) + " ";
            regs[addr + i] = data[i];
        }
        return !fail_reg.count(addr);
    }

    static const tqcam_ll_ops_t OPS;
};

inline const tqcam_ll_ops_t LinkCamera::OPS = {
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
    .reg_write =
        [](tqcam_ll_dev_t *ll, uint8_t, uint32_t addr, const uint32_t *data, uint16_t count) {
            return _of(ll)->_write_reg(addr, {data, count});
        },
    .reg_read =
        [](tqcam_ll_dev_t *ll, uint8_t, uint32_t addr, uint32_t *data, uint16_t) {
            *data = _of(ll)->regs[addr];
            return !_of(ll)->fail_reg.count(addr);
        },
    .param_set =
        [](tqcam_ll_dev_t *ll, const tqcam_ll_param_t *items, int count) {
            std::string &sent = _of(ll)->sent;
            for (int i = 0; i < count; i++) {
                const size_t before = sent.size();
                if (!_of(ll)->_set(items[i]))
                    return false;
                if (sent.size() != before)
                    sent += i + 1 < count ? "," : " ";
            }
            return true;
        },
    .param_get =
        [](tqcam_ll_dev_t *ll, tqcam_ll_param_t *items, int count) {
            for (int i = 0; i < count; i++) {
                if (_of(ll)->fail_get.count(items[i].id))
                    return false;
                _of(ll)->answer(&items[i]);
            }
            return true;
        },
};
