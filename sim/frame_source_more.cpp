#include "frame_source_more.h"

#include "replay/oni_reader.h"
#include "tqcam.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

namespace {

// A frame with its own bytes, without the truth, which no camera tells.
typedef struct held_frame_t {
    sim_frame_t frame;
    std::vector<uint8_t> data;
} held_frame_t;

void _hold(held_frame_t *held, const sim_frame_t &frame)
{
    held->frame = frame;
    held->data.assign(frame.data.begin(), frame.data.end());
}

void _show(const held_frame_t &held, sim_frame_t *out)
{
    *out = held.frame;
    out->data = held.data;
    out->truth_mm = {};
}

template <typename T> void _delete(void *self)
{
    delete static_cast<T *>(self);
}

// ---- A recording --------------------------------------------------------------------------------------

struct recording_t {
    oni_reader_t *reader = nullptr;
    oni_istream_t *stream = nullptr;
    std::string product;
    uint32_t fps = 0, format = 0, freq0 = 0, freq1 = 0, intg = 0, intg2 = 0;
    tqcam_frame_info_t info = {};
    std::vector<uint8_t> calib, data;
    uint32_t index = 0;

    ~recording_t() { oni_reader_close(reader); }
};

void _on_property(oni_reader_t *reader, int kind, const char *name, const void *value, uint32_t size,
                  void *arg)
{
    recording_t *rec = static_cast<recording_t *>(arg);
    oni_istream_t *stream = oni_reader_cur_stream(reader);
    if (stream == nullptr || stream->name == nullptr)
        return;
    if (strcmp(stream->name, "TQ_REPLAY") == 0)
        rec->stream = stream;
    if (kind == ONI_PROP_INT) {
        uint64_t number;
        memcpy(&number, value, sizeof number);
        const struct {
            const char *key;
            uint32_t *field;
        } fields[] = {{"TQ_FRAME_FPS", &rec->fps},         {"TQ_FRAME_FMT", &rec->format},
                      {"TQ_FRAME_MOD_FREQ", &rec->freq0},  {"TQ_FRAME_MOD_FREQ1", &rec->freq1},
                      {"TQ_CONF_INTG1_US", &rec->intg},    {"TQ_CONF_INTG2_US", &rec->intg2},
                      {"TQ_FRAME_IMGW", &rec->info.width}, {"TQ_FRAME_IMGH", &rec->info.height}};
        for (const auto &f : fields)
            if (strcmp(name, f.key) == 0)
                *f.field = static_cast<uint32_t>(number);
    } else if (strcmp(name, "TQ_PRODUCT") == 0 && kind == ONI_PROP_STRING) {
        rec->product = static_cast<const char *>(value);
    } else if (strcmp(name, "TQ_FRAME_INFO") == 0 && size == sizeof rec->info) {
        memcpy(&rec->info, value, size);
    } else if (strcmp(name, "TQ_FILEDATA_CALIB") == 0 && rec->calib.size() < (size_t{64} << 20)) {
        const uint8_t *bytes = static_cast<const uint8_t *>(value);
        rec->calib.insert(rec->calib.end(), bytes, bytes + size);
    }
}

bool _next_recorded(void *self, sim_frame_t *out)
{
    recording_t *rec = static_cast<recording_t *>(self);
    int got = oni_istream_get_frame(rec->stream, rec->data.data(), static_cast<int>(rec->data.size()),
                                    nullptr, nullptr);
    if (got <= 0) {
        oni_reader_rewind(rec->reader);
        got = oni_istream_get_frame(rec->stream, rec->data.data(), static_cast<int>(rec->data.size()),
                                    nullptr, nullptr);
    }
    if (got <= 0)
        return false;
    const uint32_t day_sec = rec->info.time_sec % 86400;
    *out = {};
    out->index = rec->index++;
    out->format = rec->info.frame_format != 0 ? rec->info.frame_format : rec->format;
    out->width = rec->info.width;
    out->height = rec->info.height;
    out->temp_cb = rec->info.temp_cb;
    out->temp_ib = rec->info.temp_ib;
    out->time_of_day_sec = day_sec;
    out->time_usec = rec->info.time_usec % 1000000;
    out->meta_size = rec->info.meta_size;
    out->meta_intg_us = rec->info.meta_intg_us;
    out->data = std::span<const uint8_t>(rec->data.data(), static_cast<size_t>(got));
    return true;
}

// ---- Frames over and over -----------------------------------------------------------------------------

struct loop_t {
    sim_source_ptr_t source;
    sim_config_t cfg = {};
    std::vector<held_frame_t> frames;
    size_t n = 0, at = 0;
    uint32_t index = 0;
};

bool _next_looped(void *self, sim_frame_t *out)
{
    loop_t *loop = static_cast<loop_t *>(self);
    if (loop->frames.size() < loop->n) {
        sim_frame_t frame;
        if (!loop->source->next(loop->source->self, &frame))
            return false;
        loop->frames.emplace_back();
        _hold(&loop->frames.back(), frame);
        loop->at = loop->frames.size() - 1;
    } else {
        loop->at = (loop->at + 1) % loop->n;
    }
    _show(loop->frames[loop->at], out);
    out->index = loop->index++;
    return true;
}

bool _ready_looped(void *self)
{
    const loop_t *loop = static_cast<loop_t *>(self);
    return loop->frames.size() == loop->n || loop->source->ready(loop->source->self);
}

bool _configure_looped(void *self, const sim_config_t &cfg)
{
    loop_t *loop = static_cast<loop_t *>(self);
    sim_config_t old = loop->cfg;
    loop->cfg = cfg;
    old.fps = cfg.fps;
    if (!sim_config_same(old, cfg))
        loop->frames.clear();
    return loop->source->configure(loop->source->self, cfg);
}

// ---- Ahead, on a thread -------------------------------------------------------------------------------

struct ahead_t {
    sim_source_ptr_t source; // of the thread, but for configure, which has it between two frames
    std::mutex lock;
    std::condition_variable changed;
    std::deque<held_frame_t> ready;
    held_frame_t shown;
    size_t depth = 0;
    bool busy = false, paused = false, ended = false, exit = false;
    std::thread thread;

    ~ahead_t()
    {
        {
            const std::lock_guard<std::mutex> guard(lock);
            exit = true;
        }
        changed.notify_all();
        thread.join();
    }
};

void _make_ahead(ahead_t *ahead)
{
    std::unique_lock<std::mutex> guard(ahead->lock);
    while (true) {
        ahead->changed.wait(guard, [ahead] {
            return ahead->exit || (!ahead->paused && !ahead->ended && ahead->ready.size() < ahead->depth);
        });
        if (ahead->exit)
            return;
        ahead->busy = true;
        guard.unlock();
        sim_frame_t frame;
        held_frame_t held;
        const bool more = ahead->source->next(ahead->source->self, &frame);
        if (more)
            _hold(&held, frame);
        guard.lock();
        ahead->busy = false;
        if (more)
            ahead->ready.push_back(std::move(held));
        else
            ahead->ended = true;
        ahead->changed.notify_all();
    }
}

bool _next_ahead(void *self, sim_frame_t *out)
{
    ahead_t *ahead = static_cast<ahead_t *>(self);
    std::unique_lock<std::mutex> guard(ahead->lock);
    ahead->changed.wait(guard, [ahead] { return !ahead->ready.empty() || ahead->ended; });
    if (ahead->ready.empty())
        return false;
    ahead->shown = std::move(ahead->ready.front());
    ahead->ready.pop_front();
    ahead->changed.notify_all();
    _show(ahead->shown, out);
    return true;
}

bool _ready_ahead(void *self)
{
    ahead_t *ahead = static_cast<ahead_t *>(self);
    const std::lock_guard<std::mutex> guard(ahead->lock);
    return !ahead->ready.empty() || ahead->ended;
}

bool _configure_ahead(void *self, const sim_config_t &cfg)
{
    ahead_t *ahead = static_cast<ahead_t *>(self);
    std::unique_lock<std::mutex> guard(ahead->lock);
    ahead->paused = true;
    ahead->changed.wait(guard, [ahead] { return !ahead->busy; });
    ahead->ready.clear();
    ahead->ended = ahead->paused = false;
    const bool taken = ahead->source->configure(ahead->source->self, cfg);
    ahead->changed.notify_all();
    return taken;
}

} // namespace

sim_source_ptr_t sim_source_recording(const char *path, sim_recording_t *out, std::string *error)
{
    recording_t *rec = new recording_t();
    rec->reader = oni_reader_open(path, _on_property, rec);
    sim_source_ptr_t source(new sim_frame_source_t{rec, _next_recorded, [](void *) { return true; },
                                                   [](void *, const sim_config_t &) { return false; },
                                                   _delete<recording_t>});
    if (rec->reader == nullptr || rec->stream == nullptr) {
        *error = std::string("can't play ") + path + ": it is no recording of raw frames";
        return nullptr;
    }
    const size_t first = rec->product.find('-');
    const std::string chip =
        first == std::string::npos
            ? ""
            : rec->product.substr(first + 1, rec->product.find('-', first + 1) - first - 1);
    const sim_camera_row_t *row = sim_camera_find(chip.c_str());
    if (row == nullptr) {
        *error = std::string("can't play ") + path + ": there is no virtual camera \"" + rec->product + "\"";
        return nullptr;
    }
    rec->data.resize(ONI_RDBUF_SIZE);
    oni_reader_rewind(rec->reader);
    *out = {};
    out->cfg = sim_config_default(row);
    out->cfg.format = rec->format;
    out->cfg.freq0 = rec->freq0;
    out->cfg.freq1 = rec->freq1;
    out->cfg.fps = std::clamp(rec->fps, 1u, row->max_fps);
    out->cfg.intg_us = rec->intg;
    out->cfg.intg2_us = rec->intg2;
    out->calib = rec->calib;
    return source;
}

sim_source_ptr_t sim_source_loop(sim_source_ptr_t source, const sim_config_t &cfg, uint32_t n)
{
    loop_t *loop = new loop_t();
    loop->cfg = cfg;
    loop->source = std::move(source);
    loop->n = n;
    sim_frame_t frame;
    for (uint32_t i = 0; i < n && _next_looped(loop, &frame); i++)
        ;
    return sim_source_ptr_t(
        new sim_frame_source_t{loop, _next_looped, _ready_looped, _configure_looped, _delete<loop_t>});
}

sim_source_ptr_t sim_source_ahead(sim_source_ptr_t source, uint32_t depth)
{
    ahead_t *ahead = new ahead_t();
    ahead->source = std::move(source);
    ahead->depth = depth;
    ahead->thread = std::thread(_make_ahead, ahead);
    return sim_source_ptr_t(
        new sim_frame_source_t{ahead, _next_ahead, _ready_ahead, _configure_ahead, _delete<ahead_t>});
}
