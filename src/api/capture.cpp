// The capture engine: bytes come in on the link's event thread, frames leave on the threads that retrieve. It
// has no thread of its own, and the event thread does nothing but feed the stream and keep score of faults.
#include "api/capture.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/time.h>
#include <time.h>

#include "api/params.h"
#include "api/recording.h"
#include "drivers/driver.h"
#include "log/log.h"

namespace {
constexpr uint32_t TIMEOUTS_MAX = 32; // in a whole run
constexpr uint32_t STALLS_MAX = 16;   // without data in between
constexpr int64_t STATE_LINE_EVERY_S = 10;
constexpr uint32_t CALLBACK_BUF = 0x400000; // bytes, for a frame that no retrieval has a buffer for
constexpr uint32_t FMT_MASK = 127;
constexpr size_t SAVE_FILE_COMPARED = 512;

bool _is_dual_freq(uint32_t fmt)
{
    return fmt == 14 || fmt == 17;
}

// ---- The link's event thread ---------------------------------------------------------------------------

void _end_run(tqcam_dev_priv_t *priv, tqcam_ll_dev_t *ll_dev, int32_t code)
{
    priv->cap_err_data = 0;
    priv->cap_err = code;
    priv->cap_stop = 1;
    tqcam_ll_cap_abort(ll_dev);
}

void _signal(tqcam_dev_priv_t *priv)
{
    MutexLock lock(&priv->rdy_lock);
    pthread_cond_signal(&priv->rdy_cond);
}

// A word about the stream, at most once in ten seconds for all devices of the process together.
void _log_state(const tq_stream_state_t &state, const char *caller)
{
    static relaxed_t<int64_t> last;
    const int64_t now = time(nullptr);
    if (std::llabs(now - last) < STATE_LINE_EVERY_S)
        return;
    last = now;
    LOG_AS(1, "DBG", caller, "[%s]FB state: Idx:%d, Total:%d, rdyInBuf=%d, rdyMaxWL=%d\n",
           static_cast<int>(state.assembled), static_cast<int>(state.total), static_cast<int>(state.rdy_cnt),
           static_cast<int>(state.rdy_max));
}

void on_capture_event(tqcam_ll_dev_t *ll_dev, int32_t code, const void *data, uint32_t len, void *arg)
{
    tqcam_dev_priv_t *priv = static_cast<tqcam_dev_t *>(arg)->priv;
    MutexLock feed(&priv->feed_lock);
    switch (code) {
    case TQCAM_OK:
        priv->stall_cnt = 0;
        if (tq_stream_feed_input(priv->stream, data, len > INT32_MAX ? 0 : static_cast<int32_t>(len)))
            _signal(priv);
        break;
    case TQCAM_ERR_CAP_CANCEL:
        priv->cap_stop = 1;
        tqcam_ll_cap_abort(ll_dev);
        break;
    case TQCAM_ERR_CAP_TIMEOUT:
        if (++priv->timeout_cnt > TIMEOUTS_MAX && !priv->cap_stop) {
            LOG_WARN("[%s]trans timeout -> stop\n");
            _end_run(priv, ll_dev, code);
        }
        break;
    case TQCAM_ERR_CAP_STALL:
        if (++priv->stall_cnt > STALLS_MAX && !priv->cap_stop) {
            LOG_WARN("[%s]trans stall -> stop\n");
            _end_run(priv, ll_dev, code);
        }
        break;
    default: // a waiting retrieval isn't woken: it takes what is ready when its time is up
        priv->cap_err_data = 0;
        priv->cap_err = code;
        if (!priv->cap_stop) {
            priv->cap_stop = 1;
            tqcam_ll_cap_abort(ll_dev);
        }
        return;
    }

    tq_stream_state_t state;
    tq_stream_get_state(priv->stream, &state);
    if (state.discarded > priv->last_state.discarded) {
        LOG_DEBUG("[%s]trans discard %d frames\n",
                  static_cast<int>(state.discarded - priv->last_state.discarded));
        priv->cap_err_data = state.discarded;
        priv->cap_err = TQCAM_ERR_CAP_FRAME_DISCARD;
        priv->discard_total = state.discarded;
    }
    if (priv->dev_mode == 0)
        _log_state(state, __func__);
    priv->last_state = state;
    if (code != TQCAM_OK)
        _signal(priv);
}

// ---- Start and stop, under cap_lock --------------------------------------------------------------------

void _drain(tqcam_dev_priv_t *priv)
{
    while (tq_stream_fetch_frames(priv->stream, nullptr, 0, 1, nullptr, false) > 0) {
    }
}

bool _tqcam_cap_stop(tqcam_dev_t *dev)
{
    tqcam_dev_priv_t *priv = dev->priv;
    LOG_TRACE("[%s]Enter\n");
    priv->cap_stop = 1;
    LOG_DEBUG("[%s]issue stop cmd\n");
    const bool stopped = tqcam_ll_cap_stop(&priv->ll);
    {
        MutexLock lock(&priv->rdy_lock);
        pthread_cond_broadcast(&priv->rdy_cond);
    }
    priv->cap_state = stopped ? CAP_STATE_IDLE : CAP_STATE_RUNNING;
    _tqcam_cap_replay_stop(dev);
    _drain(priv);
    const DrvUse drv(priv);
    if (drv && drv->ops->on_cap_state)
        drv->ops->on_cap_state(drv, 0);
    LOG_TRACE("[%s]Exit\n");
    return stopped;
}

// Parameters may have changed behind the library's back: what capture depends on is read back before a start.
void _read_back(tqcam_dev_t *dev, const char *caller)
{
    enum { FPS, FREQ, FMT, DUAL, INTG1, INTG2, COUNT };
    static constexpr uint32_t ids[COUNT] = {TQCAM_PARAM_FPS,       TQCAM_PARAM_MOD_FREQ, TQCAM_PARAM_FORMAT,
                                            TQCAM_PARAM_DUAL_FREQ, TQCAM_PARAM_INTG1,    TQCAM_PARAM_INTG2};
    tqcam_param_item_t items[COUNT] = {};
    for (int i = 0; i < COUNT; i++) {
        items[i].param_id = ids[i];
        items[i].param_len = sizeof(items[i].value);
    }
    if (!_tqcam_param_batch_get(dev, items, COUNT))
        return;
    tqcam_dev_priv_t *priv = dev->priv;
    const DrvUse drv(priv);
    priv->fps = param_u32(items[FPS], 0);
    if (items[INTG1].param_len == 8) {
        priv->intg_us = param_u32(items[INTG1], 0);
        priv->intg2_us = param_u32(items[INTG1], 4);
        LOG_AS(0, "TRC", caller, "[%s]intg_time:%d %d\n", static_cast<int>(priv->intg_us),
               static_cast<int>(priv->intg2_us));
    } else {
        priv->intg_us = param_u16(items[INTG1], 0);
        priv->intg2_us = param_u16(items[INTG2], 0);
    }
    if (drv && drv->ops->on_update_intg_time)
        drv->ops->on_update_intg_time(drv, priv->intg_us, priv->intg2_us != 0);
    priv->frame_fmt = param_u32(items[FMT], 0) & FMT_MASK;

    const bool hear_freq = drv && drv->ops->on_update_mod_freq;
    if (_is_dual_freq(priv->frame_fmt)) {
        const uint32_t f0 = param_u32(items[DUAL], 0), f1 = param_u32(items[DUAL], 4);
        if (f0 != priv->dual_freq0 || f1 != priv->dual_freq1) {
            priv->dual_freq0 = f0;
            priv->dual_freq1 = f1;
            if (hear_freq)
                drv->ops->on_update_mod_freq(drv, f0, f1, 0);
        }
    } else if (const uint32_t f = param_u32(items[FREQ], 0); f != priv->mod_freq) {
        priv->mod_freq = f;
        if (hear_freq)
            drv->ops->on_update_mod_freq(drv, f, 0, 0);
    }
}

// Clears the run state and the stream. The link is stopped, but its event thread may still be inside an event
// of the last run: the lock keeps that from falling into the reset. Frames of the last run go first, for the
// reset forgets their count.
void _clear_run(tqcam_dev_priv_t *priv)
{
    MutexLock feed(&priv->feed_lock);
    priv->cap_stop = 0;
    priv->timeout_cnt = 0;
    priv->stall_cnt = 0;
    priv->discard_total = 0;
    priv->cap_err = 0;
    priv->cap_force_stop = 0;
    priv->cap_err_data = 0;
    _drain(priv);
    tq_stream_reset(priv->stream);
}

// ---- Configuration, under cap_lock ---------------------------------------------------------------------

bool _is_saving(const tqcam_cap_cfg_t &cfg)
{
    return cfg.save_file && (cfg.en_save_replay || cfg.en_save_dist || cfg.en_save_gray);
}

bool _same_saving(const tqcam_cap_cfg_t &a, const tqcam_cap_cfg_t &b)
{
    const bool same_name =
        !a.save_file || !b.save_file || strncmp(a.save_file, b.save_file, SAVE_FILE_COMPARED) == 0;
    return _is_saving(a) == _is_saving(b) && same_name;
}

// Stores a configuration with a name of its own; the caller's may be the stored one itself. False when out of
// memory: nothing has changed then.
bool _store_cfg(tqcam_dev_priv_t *priv, const tqcam_cap_cfg_t &cfg)
{
    char *name = cfg.save_file ? strdup(cfg.save_file) : nullptr;
    if (cfg.save_file && !name) {
        LOG_ERROR("[%s]malloc failed\n");
        return false;
    }
    MutexLock lock(&priv->save_lock);
    free(priv->cap_cfg.save_file);
    priv->cap_cfg = cfg;
    priv->cap_cfg.save_file = name;
    return true;
}

tqcam_cap_cfg_t _stored_cfg(tqcam_dev_priv_t *priv)
{
    MutexLock lock(&priv->save_lock);
    return priv->cap_cfg;
}

bool _change_cfg_running(tqcam_dev_t *dev, tqcam_cap_cfg_t cfg, const char *caller)
{
    tqcam_dev_priv_t *priv = dev->priv;
    const tqcam_cap_cfg_t old = _stored_cfg(priv);
    if (cfg.cache_frames_cnt != old.cache_frames_cnt)
        LOG_AS(5, "WRN", caller, "[%s]Change cache_frames_cnt %d to %d is not allowed during capturing\n",
               static_cast<int>(old.cache_frames_cnt), static_cast<int>(cfg.cache_frames_cnt));
    cfg.cache_frames_cnt = old.cache_frames_cnt;
    if (_same_saving(old, cfg)) {
        MutexLock lock(&priv->save_lock);
        cfg.save_file = priv->cap_cfg.save_file;
        priv->cap_cfg = cfg;
        return true;
    }
    _tqcam_cap_replay_stop(dev);
    const bool stored = _store_cfg(priv, cfg);
    _tqcam_cap_replay_start(dev);
    return stored;
}

bool _set_cfg_idle(tqcam_dev_priv_t *priv, const tqcam_cap_cfg_t &cfg, const char *caller)
{
    if (!_store_cfg(priv, cfg))
        return false;
    LOG_AS(0, "TRC", caller, "[%s]set callback : on_cap_frdy->%p, on_cap_err->%p\n",
           reinterpret_cast<void *>(cfg.on_cap_frdy), reinterpret_cast<void *>(cfg.on_cap_err));
    const tq_stream_cfg_t stream_cfg = {.rdy_limit = cfg.cache_frames_cnt};
    tq_stream_set_cfg(priv->stream, &stream_cfg);
    return true;
}

// ---- Frames out, on a retrieval's thread ---------------------------------------------------------------

// A pending error goes out once; what comes up while the callback runs waits for the next look.
void _tell_error(tqcam_dev_t *dev, tqcam_on_cap_error_t on_err, const char *caller)
{
    tqcam_dev_priv_t *priv = dev->priv;
    const int32_t code = on_err ? priv->cap_err.word.exchange(0, std::memory_order_relaxed) : 0;
    if (code == 0)
        return;
    LOG_AS(0, "TRC", caller, "[%s]error cb invoke: %s\n", tqcam_error_name(code));
    if (on_err(dev, code, priv->cap_err_data))
        return;
    LOG_AS(1, "DBG", caller, "[%s]error cb return false to stop capture\n");
    priv->cap_force_stop = 1;
    priv->cap_stop = 1;
    priv->cap_err = 0;
}

void _tell_frame(tqcam_dev_t *dev, tqcam_on_frame_ready_t on_frame, tqcam_frame_t frame, const char *caller)
{
    const unsigned idx = frame.frame_info.frame_idx;
    LOG_AS(0, "TRC", caller, "[%s]frdy cb invoke: %u,%u\n", idx, idx);
    struct timeval begin, end;
    gettimeofday(&begin, nullptr);
    on_frame(dev, &frame);
    gettimeofday(&end, nullptr);
    const int64_t us = (end.tv_sec - begin.tv_sec) * INT64_C(1000000) + (end.tv_usec - begin.tv_usec);
    LOG_AS(1, "DBG", caller, "[%s]frdy cb (%u,%u) spends: %d.%03u ms\n", idx, idx,
           static_cast<int>(us / 1000), static_cast<unsigned>(us % 1000));
}

// Where the frames of one call go.
struct frame_place_t {
    uint8_t *buf;
    uint32_t room;
};

// Frames of one call, and what hears of them.
struct ready_pass_t {
    tqcam_dev_t *dev;
    tqcam_get_req_t *req;
    frame_place_t place;
    tqcam_on_frame_ready_t on_frame;
    const char *caller;

    bool wanted() const { return req && req->remaining > 0; }
};

bool _ask_info(tqcam_dev_priv_t *priv, tqcam_frame_info_t *info, const tq_frame_hdr_t &hdr, const void *data,
               uint32_t len)
{
    const DrvUse drv(priv);
    return drv && drv->ops->frame_get_info(drv, info, &hdr, data, len);
}

// Fetches one frame and hands it on; false when none was ready. *counts tells whether it was an image.
bool _hand_on_frame(ready_pass_t &pass, bool *counts)
{
    tqcam_dev_priv_t *priv = pass.dev->priv;
    const frame_place_t &place = pass.place;
    tq_frame_hdr_t hdr = {};
    *counts = false;
    if (tq_stream_fetch_frames(priv->stream, place.buf, place.room, 1, &hdr, false) < 1)
        return false;

    tqcam_frame_info_t info = {};
    const uint32_t got = place.room < hdr.frame_len ? place.room : hdr.frame_len;
    if (!_ask_info(priv, &info, hdr, place.buf, got)) {
        LOG_AS(6, "ERR", pass.caller, "[%s] driver frame_get_info failed!\n");
        info = tqcam_frame_info_t();
    }
    {
        MutexLock lock(&priv->info_lock);
        priv->last_info = info;
    }
    tqcam_get_req_t *req = pass.req;
    const bool whole = place.buf && hdr.frame_len <= place.room && info.frame_size <= hdr.frame_len;
    if (pass.wanted() && req->frame_num > 1 && whole && dev_show_frames(priv, place.buf, 1, &info))
        return true;
    if (pass.wanted()) {
        if (req->remaining == req->frame_num)
            *req->first_info = info;
        if (req->buf && hdr.frame_len <= req->buf_room) { // counts from the next call on
            req->buf += hdr.frame_len;
            req->buf_room -= hdr.frame_len;
        }
        req->remaining--;
    }
    if (pass.on_frame)
        _tell_frame(pass.dev, pass.on_frame, {info, place.buf}, pass.caller);
    *counts = true;
    return true;
}
} // namespace

void _cap_handle_rdy_data(tqcam_dev_t *dev, uint32_t max_frames, bool until_empty, tqcam_get_req_t *req)
{
    tqcam_dev_priv_t *priv = dev->priv;
    _tell_error(dev, _stored_cfg(priv).on_cap_err, __func__);
    if (priv->cap_force_stop) {
        LOG_TRACE("[%s]error callback force cap to stop\n");
        return;
    }
    if (max_frames == 0)
        return;
    tq_stream_state_t state;
    if (tq_stream_get_state(priv->stream, &state)->rdy_cnt == 0)
        return;

    ready_pass_t pass = {dev, req, {nullptr, 0}, _stored_cfg(priv).on_cap_frdy, __func__};
    std::unique_ptr<void, decltype(&free)> own_buf(nullptr, &free);
    if (pass.wanted() && req->buf) {
        pass.place = {req->buf, req->buf_room};
    } else if (pass.on_frame) {
        own_buf.reset(malloc(CALLBACK_BUF));
        if (!own_buf) {
            LOG_ERROR("[%s]malloc failed\n");
            return;
        }
        pass.place = {static_cast<uint8_t *>(own_buf.get()), CALLBACK_BUF};
    }

    // "All that are ready" are those that are ready now: a callback slower than the camera would never end
    // this.
    const uint32_t limit = until_empty && state.rdy_cnt > max_frames ? state.rdy_cnt : max_frames;
    uint32_t handled = 0;
    bool counts;
    while (handled < limit && _hand_on_frame(pass, &counts))
        handled += counts;
    LOG_TRACE("[%s]handle %u ready frames (reqmax: %d, rem: %d)\n", handled, static_cast<int>(max_frames),
              static_cast<int>(req ? req->remaining : 0));
}

bool tqcam_cap_config_set(tqcam_dev_t *dev, const tqcam_cap_cfg_t *cfg)
{
    if (!dev || !cfg)
        return false;
    ApiGuard guard(dev);
    if (!guard) {
        LOG_WARN("[%s]Cannot set capture config when device is closed \n");
        return true;
    }
    tqcam_dev_priv_t *priv = dev->priv;
    MutexLock lock(&priv->cap_lock);
    const bool stored = priv->cap_state == CAP_STATE_RUNNING ? _change_cfg_running(dev, *cfg, __func__)
                                                             : _set_cfg_idle(priv, *cfg, __func__);
    const tqcam_cap_cfg_t now = _stored_cfg(priv);
    LOG_DEBUG("[%s]cap: buffer=%d, en_save=[replay/dist/gray/manual:%d/%d/%d/%d]\n",
              static_cast<int>(now.cache_frames_cnt), now.en_save_replay, now.en_save_dist, now.en_save_gray,
              now.en_save_manual);
    return stored;
}

void tqcam_cap_config_get(tqcam_dev_t *dev, tqcam_cap_cfg_t *cfg)
{
    if (!dev || !cfg)
        return;
    ApiGuard guard(dev);
    if (guard)
        *cfg = _stored_cfg(dev->priv);
}

bool tqcam_cap_set_callback_on_frame_ready(tqcam_dev_t *dev, tqcam_on_frame_ready_t fn)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    LOG_TRACE("[%s]set on_cap_frdy to %p\n", reinterpret_cast<void *>(fn));
    MutexLock lock(&dev->priv->save_lock);
    dev->priv->cap_cfg.on_cap_frdy = fn;
    return true;
}

bool tqcam_cap_set_callback_on_error(tqcam_dev_t *dev, tqcam_on_cap_error_t fn)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    LOG_TRACE("[%s]set on_cap_err to %p\n", reinterpret_cast<void *>(fn));
    MutexLock lock(&dev->priv->save_lock);
    dev->priv->cap_cfg.on_cap_err = fn;
    return true;
}

bool tqcam_cap_start(tqcam_dev_t *dev)
{
    ApiGuard guard(dev);
    // A reset of the link takes the state away and brings another, at any time.
    if (!guard || !std::atomic_ref<void *>(dev->priv->ll.priv).load(std::memory_order_relaxed)) {
        LOG_ERROR("[%s] Device handler Is NULL!\r\n");
        return false;
    }
    tqcam_dev_priv_t *priv = dev->priv;
    MutexLock lock(&priv->cap_lock);
    if (priv->cap_state != CAP_STATE_IDLE && _tqcam_cap_stop(dev))
        priv->cap_state = CAP_STATE_IDLE;
    if (priv->dev_mode == 0)
        _read_back(dev, __func__);
    tq_stream_cfg_t stream_cfg;
    if (!priv->stream || tq_stream_get_cfg(priv->stream, &stream_cfg)->rdy_limit <= 1) {
        LOG_ERROR("[%s] capture buffer not set or size is not correct \n");
        return false;
    }
    LOG_TRACE("[%s]Enter ... \n");
    _clear_run(priv);
    _tqcam_cap_replay_start(dev);
    _drain(priv);
    LOG_DEBUG("[%s]issue start cmd\n");
    const bool loop = priv->ll.address.if_type == TQCAM_IF_FILE && _stored_cfg(priv).file_loop;
    if (!tqcam_ll_cap_start(&priv->ll, loop ? 1 : 0, on_capture_event, dev))
        return false;
    priv->cap_state = CAP_STATE_RUNNING;
    const DrvUse drv(priv);
    if (drv && drv->ops->on_cap_state)
        drv->ops->on_cap_state(drv, 1);
    return true;
}

bool tqcam_cap_stop(tqcam_dev_t *dev)
{
    LOG_TRACE("[%s]Enter\n");
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    tqcam_dev_priv_t *priv = dev->priv;
    MutexLock lock(&priv->cap_lock);
    if (priv->cap_state == CAP_STATE_IDLE)
        return true;
    const bool stopped = _tqcam_cap_stop(dev);
    if (stopped)
        priv->cap_state = CAP_STATE_IDLE;
    return stopped;
}

bool tqcam_cap_is_ongoing(tqcam_dev_t *dev)
{
    DevPeek peek(dev);
    return peek.priv && peek.priv->opened && peek.priv->cap_state == CAP_STATE_RUNNING &&
           !peek.priv->cap_stop;
}
