// An open camera of the E family without hardware: the real API and driver on a link that answers from maps
// and notes what it is sent. Files are looked for in the working directory.
#pragma once

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "drivers/epc/epc_priv.h"
#include "link/link_ops.h"
#include "tq_stream.h"

class EpcCamera {
  public:
    std::map<uint32_t, std::vector<uint8_t>> params; // answers; a set parameter is answered too
    std::map<uint32_t, uint32_t> regs;
    std::set<uint32_t> fail_get, fail_set, fail_reg; // ids and addresses that the link refuses
    std::string sent;                                // "id=value " of each parameter set, bytes in hex
    std::string reg_writes;                          // "addr=value " of each register
    tqcam_dev_t dev = {};

    // chip: second word of the product string
    explicit EpcCamera(const std::string &chip = "E1")
    {
        tqcam_path_set("");
        set_text(TQCAM_PARAM_VENDOR, "maker");
        set_text(TQCAM_PARAM_PRODUCT, "XX-" + chip + "-YY");
        set_words(TQCAM_PARAM_SERIAL, {1, 0, 0});
        params[TQCAM_PARAM_CHIP_ID] = {5, 0, 6, 0, 7, 0};
        params[TQCAM_PARAM_LIMITS] = {64, 1, 240, 0, 2, 0, 60, 0, 220, 5, 0, 0};
        params[TQCAM_PARAM_VERSION] = params[TQCAM_PARAM_CALIB_INFO] = {};
        set_words(TQCAM_PARAM_MOD_FREQ, {12000000});
    }
    ~EpcCamera() { close(); }
    EpcCamera(const EpcCamera &) = delete;
    EpcCamera &operator=(const EpcCamera &) = delete;

    static constexpr const char *CALIB_FILE = "tqcam_param_458759.bin"; // serial 1 ^ 0x70006

    bool open(uint32_t if_type = TQCAM_IF_USB)
    {
        dev.priv = new tqcam_dev_priv_t();
        dev.priv->ll.ops = &OPS;
        dev.priv->ll.address.if_type = if_type;
        if (!if_type)
            dev.priv->ll.address.usb.speed = 3;
        dev.priv->ll.priv = this;
        return tqcam_dev_open(&dev) != nullptr;
    }
    void close() { tqcam_dev_close(&dev); }

    tqcam_drv_t *drv() { return dev.priv->drv; }
    const tqcam_drv_ops_t *ops() { return drv()->ops; }
    epc_priv_t *epc() { return epc_priv(drv()); }

    void set_text(uint32_t id, const std::string &text) { params[id].assign(text.begin(), text.end()); }
    void set_words(uint32_t id, const std::vector<uint32_t> &words)
    {
        params[id].resize(4 * words.size());
        memcpy(params[id].data(), words.data(), 4 * words.size());
    }
    void set_sys_calib(float scale, float offset, uint8_t valid = 1)
    {
        std::vector<uint8_t> &v = params[18];
        v.assign(17, 0);
        memcpy(&v[4], &scale, 4);
        memcpy(&v[8], &offset, 4);
        v[16] = valid;
    }
    bool enable(uint32_t id, tqcam_filter_arg_t arg = {}) { return ops()->filter_enable(drv(), id, &arg); }
    bool disable(uint32_t id) { return ops()->filter_disable(drv(), id); }
    // What was sent since the last call.
    std::string take_sent() { return std::exchange(sent, {}); }

    static tqcam_frame_info_t info(uint16_t fmt, uint32_t w, uint32_t h, uint32_t planes)
    {
        tqcam_frame_info_t i = {};
        i.frame_size = planes * w * h * 2;
        i.frame_format = fmt;
        i.width = w;
        i.height = h;
        return i;
    }
    // An image, or nothing when the decode fails.
    std::vector<uint16_t> decode(int kind, const std::vector<uint16_t> &raw, const tqcam_frame_info_t &info)
    {
        std::vector<uint16_t> image(size_t{info.width} * info.height, 0xBEEF);
        result = ops()->frame_decode(drv(), image.data(), static_cast<uint32_t>(2 * image.size()), kind,
                                     raw.data(), static_cast<uint32_t>(2 * raw.size()), &info);
        return result == static_cast<int>(2 * image.size()) ? image : std::vector<uint16_t>();
    }
    int result = 0; // of the last decode

  private:
    static EpcCamera *of(tqcam_ll_dev_t *ll) { return static_cast<EpcCamera *>(ll->priv); }
    static const tqcam_ll_ops_t OPS;
};

inline const tqcam_ll_ops_t EpcCamera::OPS = {
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
            for (uint32_t i = 0; i < count; i++) {
                of(ll)->reg_writes += std::to_string(addr + i) + "=" + std::to_string(data[i]) + " ";
                of(ll)->regs[addr + i] = data[i];
            }
            return !of(ll)->fail_reg.count(addr);
        },
    .reg_read =
        [](tqcam_ll_dev_t *ll, uint8_t, uint32_t addr, uint32_t *data, uint16_t) {
            *data = of(ll)->regs[addr];
            return !of(ll)->fail_reg.count(addr);
        },
    .param_set =
        [](tqcam_ll_dev_t *ll, const tqcam_ll_param_t *items, int count) {
            for (int i = 0; i < count; i++) {
                if (of(ll)->fail_set.count(items[i].id))
                    return false;
                of(ll)->params[items[i].id].assign(items[i].value, items[i].value + items[i].len);
                if (items[i].id == 19) // the time
                    continue;
                of(ll)->sent += std::to_string(items[i].id) + "=";
                for (int b = 0; b < items[i].len; b++) {
                    char hex[3];
                    snprintf(hex, sizeof(hex), "%02x", items[i].value[b]);
                    of(ll)->sent += hex;
                }
                of(ll)->sent += " ";
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
