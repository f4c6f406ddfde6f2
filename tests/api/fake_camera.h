// A camera made of a link table and a driver row that the test controls. The link answers parameters from a
// map, notes the calls that reach it, and feeds what the test sends; the driver notes its events.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

#include "support/link_camera.h"

// What happened, in order: "link.open", "drv.fps 30".
class CallLog {
  public:
    void add(const std::string &call)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(call);
    }
    std::vector<std::string> take()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(calls_, {});
    }
    bool has(const std::string &call)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::find(calls_.begin(), calls_.end(), call) != calls_.end();
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> calls_;
};

struct FakeCamera : camera_params_t {
    // What the link and the driver answer.
    bool open_ok = true, start_ok = true, stop_ok = true, get_ok = true, set_ok = true, init_ok = true;
    int slow_rounds = 0;         // so often the camera comes up at low speed
    bool reset_reopens = true;   // a reset leaves the link open
    std::atomic<int> consume{0}; // so many frames are the driver's own (0xDCBA)
    int need_data = 0;           // result of frame_need_data
    int calib_result = 0;        // of drv_calib_load
    int frames_on_start = 0;
    bool info_ok = true;
    uint32_t meta_intg_us = 0;
    std::function<int(void *dst, uint32_t dst_size, int kind)> decode;

    CallLog calls;
    std::atomic<tqcam_ll_rx_cb_t> rx{nullptr}; // of the run; its argument is the handle
    tqcam_dev_t dev = {};

    FakeCamera() : camera_params_t("XX-E1-YY")
    {
        current = this;
        set_words(TQCAM_PARAM_SERIAL, {1, 2, 4});
        params[TQCAM_PARAM_VERSION] = {1, 0, 2, 0, 3, 0, 4, 0};
        params[TQCAM_PARAM_CALIB_INFO].assign(18, 0);
    }
    ~FakeCamera()
    {
        tqcam_dev_close(&dev);
        if (row_)
            row_->ops = row_ops_;
        current = nullptr;
    }
    FakeCamera(const FakeCamera &) = delete;
    FakeCamera &operator=(const FakeCamera &) = delete;

    // A handle that tqcam_dev_open will open through this link and, if its product is of an E1 camera, with
    // this driver: the row of that chip works for the fake as long as it stands.
    tqcam_dev_t *prepare()
    {
        dev.priv = new tqcam_dev_priv_t();
        dev.priv->ll.ops = &link_ops;
        dev.inited = dev.priv->ll.inited = 1;
        return &dev;
    }
    tqcam_dev_t *open()
    {
        take_row();
        return tqcam_dev_open(prepare());
    }
    tqcam_dev_priv_t *priv() { return dev.priv; }
    const tqcam_drv_t *row() const { return row_; }

    // An event of the link's event thread.
    void event(int32_t code, const void *data = nullptr, uint32_t len = 0)
    {
        if (tqcam_ll_rx_cb_t cb = rx)
            cb(&dev.priv->ll, code, data, len, &dev);
    }
    // Sends one whole frame of len bytes, all with the value of its index, as one packet.
    void send_frame(uint16_t idx, uint32_t len = 64, uint16_t fmt = 2, uint32_t meta_len = 0)
    {
        tq_stream_hdr_t hdr = {};
        hdr.magic = TQ_STREAM_MAGIC;
        hdr.stream_idx = packets_++;
        hdr.len = len;
        hdr.frame = {};
        hdr.frame.frame_len = len;
        hdr.frame.frame_idx = idx;
        hdr.frame.frame_fmt = fmt;
        hdr.frame.aux = meta_len;
        hdr.flags0 = TQ_STREAM_BOUND;
        hdr.flags1 = meta_len ? TQ_STREAM_META : 0;
        hdr.hdr_hash = tq_stream_hash16(&hdr, 34, 0);
        std::vector<uint8_t> packet(sizeof(hdr) + len, static_cast<uint8_t>(idx));
        memcpy(packet.data(), &hdr, sizeof(hdr));
        event(TQCAM_OK, packet.data(), static_cast<uint32_t>(packet.size()));
    }

    inline static FakeCamera *current; // the tables are plain functions: one fake at a time
    static const tqcam_ll_ops_t link_ops;
    static const tqcam_drv_ops_t drv_ops;

  private:
    void take_row()
    {
        tqcam_dev_t probe = {};
        strcpy(probe.product, "XX-E1-YY");
        tqcam_ll_dev_t ll = {};
        ll.dev = &probe;
        row_ = tqcam_drv_find(&ll);
        ASSERT_NE(row_, nullptr);
        row_ops_ = row_->ops;
        row_->ops = &drv_ops;
    }

    uint16_t packets_ = 0;
    tqcam_drv_t *row_ = nullptr;
    const tqcam_drv_ops_t *row_ops_ = nullptr;
};

inline void fake_note(const char *fmt, ...)
{
    char text[128];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    FakeCamera::current->calls.add(text);
}

inline const tqcam_ll_ops_t FakeCamera::link_ops = {
    .init = [] { return true; },
    .uninit = [] {},
    .set_debug = [](int) {},
    .dev_open = [](tqcam_ll_dev_t *ll) -> tqcam_ll_dev_t * {
        FakeCamera *cam = current;
        fake_note("link.open");
        if (!cam->open_ok)
            return nullptr;
        ll->priv = cam;
        if (ll->address.if_type == TQCAM_IF_USB)
            ll->address.usb.speed = cam->slow_rounds-- > 0 ? 2 : 3;
        return ll;
    },
    .dev_open_by_fd = [](tqcam_ll_dev_t *, int) -> tqcam_ll_dev_t * { return nullptr; },
    .dev_close =
        [](tqcam_ll_dev_t *ll) {
            fake_note("link.close");
            ll->priv = nullptr;
        },
    .dev_list = [](tqcam_ll_dev_t *, int) { return 0; },
    .exe_cmd = [](tqcam_ll_dev_t *, uint8_t, uint8_t, uint16_t, void *, uint32_t, uint32_t) { return true; },
    .tx_data = [](tqcam_ll_dev_t *, const void *, uint32_t) { return 0; },
    .cap_abort = [](tqcam_ll_dev_t *) { fake_note("link.abort"); },
    .cap_wait = [](tqcam_ll_dev_t *) { fake_note("link.wait"); },
    .cap_start =
        [](tqcam_ll_dev_t *, uint32_t mode, tqcam_ll_rx_cb_t cb, void *arg) {
            EXPECT_EQ(arg, &current->dev);
            fake_note("link.start %u", mode);
            current->rx = cb;
            for (int i = 0; i < current->frames_on_start; i++)
                current->send_frame(static_cast<uint16_t>(i));
            return current->start_ok;
        },
    .cap_stop =
        [](tqcam_ll_dev_t *) {
            fake_note("link.stop");
            return current->stop_ok;
        },
    .cap_seek = [](tqcam_ll_dev_t *, int offset, int origin) { return 10 * origin + offset; },
    .dev_reset =
        [](tqcam_ll_dev_t *ll, uint8_t target) {
            fake_note("link.reset %u", target);
            if (target == 3 && !current->reset_reopens)
                ll->priv = nullptr;
            return target != 3;
        },
    .reg_write =
        [](tqcam_ll_dev_t *, uint8_t type, uint32_t addr, const uint32_t *, uint16_t count) {
            fake_note("link.reg_write %u %u %u", type, addr, count);
            return true;
        },
    .reg_read =
        [](tqcam_ll_dev_t *, uint8_t type, uint32_t addr, uint32_t *, uint16_t count) {
            fake_note("link.reg_read %u %u %u", type, addr, count);
            return true;
        },
    .param_set =
        [](tqcam_ll_dev_t *, const tqcam_ll_param_t *items, int count) {
            fake_note("link.set %d", count);
            for (int i = 0; i < count && current->set_ok; i++)
                fake_note("link.set id %u len %u", items[i].id, items[i].len);
            return current->set_ok;
        },
    .param_get =
        [](tqcam_ll_dev_t *, tqcam_ll_param_t *items, int count) {
            fake_note("link.get %d", count);
            for (int i = 0; i < count && current->get_ok; i++)
                current->answer(&items[i]);
            return current->get_ok;
        },
};

inline const tqcam_drv_ops_t FakeCamera::drv_ops = {
    .init =
        [](tqcam_drv_t *drv, tqcam_dev_t *dev) {
            fake_note("drv.init");
            drv->dev = dev;
            return current->init_ok;
        },
    .uninit = [](tqcam_drv_t *) { fake_note("drv.uninit"); },
    .frame_get_info =
        [](tqcam_drv_t *, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr, const void *, uint32_t len) {
            fake_note("drv.info %u of %u", len, hdr->frame_len);
            *out = {};
            out->frame_size = hdr->frame_len;
            out->frame_idx = hdr->frame_idx;
            out->frame_format = hdr->frame_fmt;
            out->width = 8;
            out->height = 4;
            out->meta_size = hdr->aux;
            out->meta_intg_us = current->meta_intg_us;
            return current->info_ok;
        },
    .frame_decode = [](tqcam_drv_t *, void *dst, uint32_t dst_size, int kind, const void *, uint32_t,
                       const tqcam_frame_info_t *) { return current->decode(dst, dst_size, kind); },
    .frame_need_data =
        [](tqcam_drv_t *, void *, uint32_t count, tqcam_frame_info_t *out) {
            fake_note("drv.need %u", count);
            out->frame_idx = 777;
            return current->need_data;
        },
    .frame_raw_proc = [](tqcam_drv_t *, void *, uint32_t count, const tqcam_frame_info_t *info) -> int {
        fake_note("drv.raw %u x %u", count, info->frame_size);
        return current->consume-- > 0 ? DRV_FRAME_CONSUMED : 0;
    },
    .lens_param_get = nullptr,
    .lens_rec_get = nullptr,
    .calib_freq_get =
        [](tqcam_drv_t *, uint32_t *freqs, uint32_t *count) {
            fake_note("drv.freqs %u", *count);
            freqs[0] = 12000000;
            *count = 1;
            return 1;
        },
    .use_case_list = [](tqcam_drv_t *, tqcam_use_case_t *, uint8_t) { return 0; },
    .use_case_set = nullptr,
    .use_case_get = nullptr,
    .on_cap_state = [](tqcam_drv_t *, int started) { fake_note("drv.cap %d", started); },
    .on_update_fps = [](tqcam_drv_t *, uint32_t fps) { fake_note("drv.fps %u", fps); },
    .on_update_intg_time = [](tqcam_drv_t *, uint32_t us,
                              int index) { fake_note("drv.intg %u %d", us, index); },
    .on_update_fmt = [](tqcam_drv_t *, uint32_t fmt) { fake_note("drv.fmt %u", fmt); },
    .on_update_mod_freq = [](tqcam_drv_t *, uint32_t f0, uint32_t f1,
                             uint32_t zero) { fake_note("drv.freq %u %u %u", f0, f1, zero); },
    .on_update_gray_div = [](tqcam_drv_t *, uint16_t value) { fake_note("drv.div %u", value); },
    .on_update_roi = [](tqcam_drv_t *, const uint8_t *roi) { fake_note("drv.roi %u..%u", roi[0], roi[12]); },
    .drv_calib_load =
        [](tqcam_drv_t *, int a, int b, int c) {
            fake_note("drv.calib %d %d %d", a, b, c);
            return current->calib_result;
        },
    .reserved_a = nullptr,
    .reserved_b = nullptr,
    .filter_enable = [](tqcam_drv_t *, uint32_t, const tqcam_filter_arg_t *) { return true; },
    .filter_disable = [](tqcam_drv_t *, uint32_t) { return true; },
};
