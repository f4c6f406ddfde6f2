// A camera made of a link table and a driver row that the test controls. The link answers parameters from a
// map, notes the calls that reach it, and feeds what the test sends; the driver notes its events.
#pragma once

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <sstream>

#include "support/link_camera.h"

using calls_t = std::vector<std::string>;

struct FakeCamera : camera_params_t {
    // What the link and the driver answer.
    bool open_ok = true, start_ok = true, stop_ok = true, get_ok = true, set_ok = true, init_ok = true;
    std::atomic<int> consume{0};         // so many frames are the driver's own (0xDCBA)
    int need_data = 0, calib_result = 0; // results of frame_need_data and drv_calib_load
    int frames_on_start = 0;
    int slow_rounds = 0; // so often the camera is slow; with more than five to go a reset loses it
    uint32_t meta_intg_us = 0;
    std::function<int(void *dst, uint32_t dst_size, int kind)> decode = [](void *dst, uint32_t size,
                                                                           int kind) {
        memset(dst, 100 + kind, size);
        return static_cast<int>(size);
    };
    tqcam_drv_ops_t ops = drv_ops; // the driver's table, once open

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
        if (row)
            row->ops = row_ops_;
        current = nullptr;
    }

    // Opens the handle through this link and, if its product is of an E1 camera, with this driver: the row of
    // that chip works for the fake as long as it stands.
    tqcam_dev_t *open()
    {
        tqcam_dev_t probe = {};
        strcpy(probe.product, "XX-E1-YY");
        tqcam_ll_dev_t ll = {};
        ll.dev = &probe;
        row = tqcam_drv_find(&ll);
        row_ops_ = row->ops;
        row->ops = &ops;
        dev.priv = new tqcam_dev_priv_t();
        dev.priv->ll.ops = &link_ops;
        dev.inited = dev.priv->ll.inited = 1;
        return tqcam_dev_open(&dev);
    }

    // What happened, in order: "link.open", "drv.fps 30"; all since the last take().
    template <class... T> static void note(const char *what, T... values)
    {
        std::ostringstream text;
        text << what;
        ((text << " " << values), ...);
        std::lock_guard<std::mutex> lock(current->mutex_);
        current->calls_.push_back(text.str());
    }
    calls_t take()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(calls_, {});
    }
    bool has(const std::string &call)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::find(calls_.begin(), calls_.end(), call) != calls_.end();
    }

    // An event of the link's event thread.
    void event(int32_t code, const void *data = nullptr, uint32_t len = 0)
    {
        if (tqcam_ll_rx_cb_t cb = rx)
            cb(&dev.priv->ll, code, data, len, &dev);
    }
    // Sends a frame of len bytes, all with the value of its index, as one packet; the first part of it only
    // if it is to be left incomplete.
    void send_frame(uint16_t idx, uint32_t len = 64, uint32_t meta_len = 0, uint32_t part = ~0u)
    {
        const uint32_t n = std::min(len, part);
        tq_stream_hdr_t hdr = {TQ_STREAM_MAGIC,
                               packets_++,
                               n,
                               {len, idx, 2, 0, 0, 0, 0, 0, meta_len},
                               TQ_STREAM_BOUND,
                               uint8_t(meta_len ? TQ_STREAM_META : 0),
                               0};
        hdr.hdr_hash = tq_stream_hash16(&hdr, 34, 0);
        std::vector<uint8_t> packet(sizeof(hdr) + n, static_cast<uint8_t>(idx));
        memcpy(packet.data(), &hdr, sizeof(hdr));
        event(TQCAM_OK, packet.data(), static_cast<uint32_t>(packet.size()));
    }

    tqcam_drv_t *row = nullptr;
    inline static FakeCamera *current; // the tables are plain functions: one fake at a time
    static const tqcam_ll_ops_t link_ops;
    static const tqcam_drv_ops_t drv_ops;

  private:
    std::mutex mutex_;
    calls_t calls_;
    uint16_t packets_ = 0;
    const tqcam_drv_ops_t *row_ops_ = nullptr;
};

inline const tqcam_ll_ops_t FakeCamera::link_ops = [] {
    tqcam_ll_ops_t t = {};
    t.dev_open = [](tqcam_ll_dev_t *ll) -> tqcam_ll_dev_t * {
        note("link.open");
        if (!current->open_ok)
            return nullptr;
        ll->priv = current;
        if (ll->address.if_type == TQCAM_IF_USB)
            ll->address.usb.speed = current->slow_rounds-- > 0 ? 2 : 3;
        return ll;
    };
    t.dev_close = [](tqcam_ll_dev_t *ll) {
        note("link.close");
        ll->priv = nullptr;
    };
    t.cap_abort = [](tqcam_ll_dev_t *) { note("link.abort"); };
    t.cap_wait = [](tqcam_ll_dev_t *) { note("link.wait"); };
    t.cap_start = [](tqcam_ll_dev_t *, uint32_t mode, tqcam_ll_rx_cb_t cb, void *arg) {
        EXPECT_EQ(arg, &current->dev);
        note("link.start", mode);
        current->rx = cb;
        for (int i = 0; i < current->frames_on_start; i++)
            current->send_frame(static_cast<uint16_t>(i));
        return current->start_ok;
    };
    t.cap_stop = [](tqcam_ll_dev_t *) {
        note("link.stop");
        return current->stop_ok;
    };
    t.cap_seek = [](tqcam_ll_dev_t *, int offset, int origin) { return 10 * origin + offset; };
    t.dev_reset = [](tqcam_ll_dev_t *ll, uint8_t target) {
        note("link.reset", int(target));
        if (target == 3 && current->slow_rounds > 5)
            ll->priv = nullptr;
        return target != 3;
    };
    t.reg_write = [](tqcam_ll_dev_t *, uint8_t, uint32_t, const uint32_t *, uint16_t) { return true; };
    t.reg_read = [](tqcam_ll_dev_t *, uint8_t, uint32_t, uint32_t *, uint16_t) { return true; };
    t.param_set = [](tqcam_ll_dev_t *, const tqcam_ll_param_t *items, int count) {
        for (int i = 0; i < count; i++)
            note("link.set", int(items[i].id), int(items[i].len));
        return current->set_ok;
    };
    t.param_get = [](tqcam_ll_dev_t *, tqcam_ll_param_t *items, int count) {
        note("link.get", count);
        for (int i = 0; i < count && current->get_ok; i++)
            current->answer(&items[i]);
        return current->get_ok;
    };
    return t;
}();

inline const tqcam_drv_ops_t FakeCamera::drv_ops = [] {
    tqcam_drv_ops_t t = {};
    t.init = [](tqcam_drv_t *drv, tqcam_dev_t *dev) {
        note("drv.init");
        drv->dev = dev;
        return current->init_ok;
    };
    t.uninit = [](tqcam_drv_t *) { note("drv.uninit"); };
    t.frame_get_info = [](tqcam_drv_t *, tqcam_frame_info_t *out, const tq_frame_hdr_t *hdr, const void *,
                          uint32_t len) {
        note("drv.info", len);
        *out = {};
        out->frame_size = hdr->frame_len;
        out->frame_idx = hdr->frame_idx;
        out->frame_format = hdr->frame_fmt;
        out->width = 8;
        out->height = 4;
        out->meta_size = hdr->aux;
        out->meta_intg_us = current->meta_intg_us;
        return true;
    };
    t.frame_decode = [](tqcam_drv_t *, void *dst, uint32_t dst_size, int kind, const void *, uint32_t,
                        const tqcam_frame_info_t *) { return current->decode(dst, dst_size, kind); };
    t.frame_need_data = [](tqcam_drv_t *, void *, uint32_t count, tqcam_frame_info_t *out) {
        note("drv.need", count);
        out->frame_idx = 777;
        return current->need_data;
    };
    t.frame_raw_proc = [](tqcam_drv_t *, void *, uint32_t count, const tqcam_frame_info_t *) -> int {
        note("drv.raw", count);
        return current->consume-- > 0 ? DRV_FRAME_CONSUMED : 0;
    };
    t.calib_freq_get = [](tqcam_drv_t *, uint32_t *freqs, uint32_t *count) {
        freqs[0] = 12000000;
        *count = 1;
        return 1;
    };
    t.use_case_list = [](tqcam_drv_t *, tqcam_use_case_t *, uint8_t) { return 0; };
    t.on_cap_state = [](tqcam_drv_t *, int started) { note("drv.cap", started); };
    t.on_update_fps = [](tqcam_drv_t *, uint32_t fps) { note("drv.fps", fps); };
    t.on_update_intg_time = [](tqcam_drv_t *, uint32_t us, int index) { note("drv.intg", us, index); };
    t.on_update_fmt = [](tqcam_drv_t *, uint32_t fmt) { note("drv.fmt", fmt); };
    t.on_update_mod_freq = [](tqcam_drv_t *, uint32_t f, uint32_t f1, uint32_t) { note("drv.freq", f, f1); };
    t.on_update_gray_div = [](tqcam_drv_t *, uint16_t value) { note("drv.div", value); };
    t.on_update_roi = [](tqcam_drv_t *, const uint8_t *roi) { note("drv.roi", int(roi[0]), int(roi[12])); };
    t.drv_calib_load = [](tqcam_drv_t *, int a, int b, int c) {
        note("drv.calib", a, b, c);
        return current->calib_result;
    };
    t.filter_enable = [](tqcam_drv_t *, uint32_t, const tqcam_filter_arg_t *) { return true; };
    return t;
}();
