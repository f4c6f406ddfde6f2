// Recordings for the tests of the replay link, and a callback that keeps what it gets.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "link/link_ops.h"
#include "replay/oni_writer.h"
#include "tq_stream.h"

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

class Recording {
  public:
    explicit Recording(const char *path, bool device = true) : writer_(oni_writer_open(path))
    {
        if (!device)
            return;
        stream("Device", 1);
        integer("TQ_DEV_ID", 0x1122334455667788);
        text("TQ_PRODUCT", "CAM-EPC660");
    }
    ~Recording() { oni_writer_close(writer_); }
    Recording(const Recording &) = delete;
    Recording &operator=(const Recording &) = delete;

    // The current stream ends and another begins.
    oni_ostream_t *stream(const char *name, uint32_t type = 2)
    {
        oni_ostream_close(stream_);
        const oni_stream_cfg_t cfg = {type, name, type == 1 ? 0u : 101u, 4096, 4, 4, 2, 30};
        return stream_ = oni_ostream_open(writer_, &cfg);
    }
    void integer(const char *key, uint64_t v) { oni_ostream_set_property(stream_, ONI_PROP_INT, key, &v, 8); }
    void real(const char *key, double v) { oni_ostream_set_property(stream_, ONI_PROP_REAL, key, &v, 8); }
    void text(const char *key, const char *v)
    {
        oni_ostream_set_property(stream_, ONI_PROP_STRING, key, v, 0);
    }
    void general(const char *key, const void *v, uint32_t size)
    {
        oni_ostream_set_property(stream_, ONI_PROP_GENERAL, key, v, size);
    }
    void info(const tqcam_frame_info_t &info) { general("TQ_FRAME_INFO", &info, sizeof(info)); }
    // A frame of n bytes of one value.
    void frame(uint8_t value, uint32_t n = 64)
    {
        oni_ostream_save_frame(stream_, Bytes(n, value).data(), n, value * 1000u);
    }

  private:
    oni_writer_t *writer_;
    oni_ostream_t *stream_ = nullptr;
};

// count frames of 64 bytes, the i-th of which holds i; fps 0 waits for permits.
inline void record(const char *path, int count, uint32_t fps = 500)
{
    Recording r(path);
    r.stream("TQ_REPLAY");
    r.integer("TQ_FRAME_FPS", fps);
    for (int i = 1; i <= count; i++)
        r.frame(static_cast<uint8_t>(i));
}

struct Received {
    int32_t code;
    Bytes data;
};

// What the link handed on.
class Sink {
  public:
    static void on_rx(tqcam_ll_dev_t *, int32_t code, const void *data, uint32_t len, void *arg)
    {
        Sink *s = static_cast<Sink *>(arg);
        const uint8_t *p = static_cast<const uint8_t *>(data);
        std::lock_guard<std::mutex> lock(s->lock_);
        s->all_.push_back({code, Bytes(p, p + len)});
        s->changed_.notify_all();
    }
    // Waits for so many calls; what there is after all.
    std::vector<Received> wait(size_t calls, int ms = 5000)
    {
        std::unique_lock<std::mutex> lock(lock_);
        changed_.wait_for(lock, std::chrono::milliseconds(ms), [&] { return all_.size() >= calls; });
        return all_;
    }
    size_t calls() { return wait(0).size(); }
    void clear()
    {
        std::lock_guard<std::mutex> lock(lock_);
        all_.clear();
    }
    // The first byte of each frame as a digit, 'E' for the end of the file.
    static std::string order(const std::vector<Received> &all)
    {
        std::string text;
        for (const Received &r : all) {
            if (r.code == TQCAM_ERR_CAP_EOF)
                text += 'E';
            else if (r.code == 0 && r.data.size() != sizeof(tq_stream_hdr_t))
                text += std::to_string(r.data.at(0));
        }
        return text;
    }
    // Waits for the end of the file.
    std::string until_end(int ms = 5000)
    {
        std::unique_lock<std::mutex> lock(lock_);
        changed_.wait_for(lock, std::chrono::milliseconds(ms),
                          [&] { return !all_.empty() && all_.back().code == TQCAM_ERR_CAP_EOF; });
        return order(all_);
    }

  private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<Received> all_;
};

// A link record on a file, opened through the link's own table.
struct Link {
    explicit Link(const char *path) : path_(path)
    {
        dev.address.if_type = TQCAM_IF_FILE;
        dev.address.file.path = path_.data();
        open = file_ll_ops.dev_open(&dev) == &dev;
    }
    ~Link() { file_ll_ops.dev_close(&dev); }
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    bool start(Sink *sink, uint32_t mode = 0) { return dev.ops->cap_start(&dev, mode, Sink::on_rx, sink); }
    bool stop() { return dev.ops->cap_stop(&dev); }
    void set_fps(uint32_t fps)
    {
        tqcam_ll_param_t item = {TQCAM_PARAM_FPS, 4, {}};
        memcpy(item.value, &fps, 4);
        dev.ops->param_set(&dev, &item, 1);
    }
    Bytes get(uint8_t id)
    {
        tqcam_ll_param_t item = {id, 4, {0xAA, 0xAA}};
        dev.ops->param_get(&dev, &item, 1);
        return Bytes(item.value, item.value + item.len);
    }

    tqcam_ll_dev_t dev = {};
    bool open;

  private:
    std::string path_;
};
