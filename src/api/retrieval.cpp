// Retrieval: the calls that wait for frames and copy them into the caller's buffer. All that the capture
// engine has for the application, frames and errors, leaves it inside these calls.
#include <cstring>
#include <sys/time.h>

#include "api/capture.h"
#include "api/recording.h"
#include "drivers/driver.h"
#include "log/log.h"

namespace {
constexpr uint32_t FPS_DEFAULT = 20;
constexpr int64_t TRIGGERED_TIMEOUT_MS = 31536000; // nearly nine hours: an outside trigger has no rate

// What a retrieval was asked for.
struct wanted_t {
    uint32_t frame_num;
    uint8_t *buf;
    uint32_t buf_len;
    int64_t timeout_ms;
    bool until_empty;
};

// A pass that ended with frames which the driver took for itself.
constexpr int RESTART = INT32_MIN;

struct timespec _deadline(int64_t timeout_ms)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    const int64_t ns = now.tv_usec * INT64_C(1000) + timeout_ms % 1000 * 1000000;
    struct timespec at = {};
    at.tv_sec = static_cast<time_t>(now.tv_sec + timeout_ms / 1000 + ns / 1000000000);
    at.tv_nsec = static_cast<long>(ns % 1000000000);
    return at;
}

// Waits until frames are ready. False when there is nothing to wait for: no time, capture stopped or
// time-out.
bool _wait_ready(tqcam_dev_priv_t *priv, int64_t timeout_ms, const struct timespec &deadline,
                 const char *caller)
{
    int rc = 0;
    {
        MutexLock lock(&priv->rdy_lock);
        tq_stream_state_t state;
        tq_stream_get_state(priv->stream, &state);
        if (timeout_ms == 0 || priv->cap_stop)
            return false;
        if (state.rdy_cnt == 0) {
            tqcam_ll_cap_wait(&priv->ll);
            rc = pthread_cond_timedwait(&priv->rdy_cond, &priv->rdy_lock, &deadline);
        }
    }
    if (rc != 0)
        LOG_AS(4, "INF", caller, "[%s] timeout ... (%s)\n", strerror(rc));
    return rc == 0;
}

// A frame of the driver's own in place of one from the camera: above 0 when it made one. Only asked when a
// frame of the size seen last has room, for the driver is told no length.
int _ask_driver(tqcam_dev_priv_t *priv, const wanted_t &want, tqcam_frame_info_t *info)
{
    const DrvUse drv(priv);
    if (!want.buf || !drv || !drv->ops->frame_need_data || priv->shown_max > want.buf_len)
        return 0;
    return drv->ops->frame_need_data(drv, want.buf, want.frame_num, info);
}

// Integration time by the camera's own control: it decided, the library follows.
void _follow_auto_intg(tqcam_dev_t *dev, const tqcam_frame_info_t &info)
{
    tqcam_dev_priv_t *priv = dev->priv;
    if (info.meta_size == 0 || info.meta_intg_us <= 1 || info.meta_intg_us == priv->intg_us)
        return;
    priv->intg_us = info.meta_intg_us;
    const DrvUse drv(priv);
    if (drv && drv->ops->on_update_intg_time)
        drv->ops->on_update_intg_time(drv, info.meta_intg_us, priv->intg2_us != 0);
    rec_auto_intg(dev, info.meta_intg_us);
}

// One pass of a retrieval: its result, or RESTART.
int _retrieve(tqcam_dev_t *dev, const wanted_t &want, tqcam_frame_info_t *info, const char *caller)
{
    tqcam_dev_priv_t *priv = dev->priv;
    tqcam_frame_info_t first_info = {};
    if (!priv->opened || want.frame_num == 0) {
        LOG_AS(1, "DBG", caller, "[%s]Wrong params\n");
        return -1;
    }
    const int by_driver = _ask_driver(priv, want, &first_info);
    if (by_driver > 0) {
        if (info)
            *info = first_info;
        LOG_AS(0, "TRC", caller, "[%s]get %d frames (drv)\n", by_driver);
        return by_driver;
    }

    const struct timespec deadline = _deadline(want.timeout_ms);
    LOG_AS(0, "TRC", caller, "[%s]frame_num = %d, timeout_msec=%d\n", static_cast<int>(want.frame_num),
           static_cast<int>(want.timeout_ms));
    tqcam_get_req_t req = {want.frame_num, want.frame_num, want.buf, want.buf_len, &first_info};
    int result = by_driver;
    bool failed = true;
    int32_t err = priv->cap_err;
    if (err < 0 && priv->cap_err.word.compare_exchange_strong(err, 0, std::memory_order_relaxed)) {
        result = err; // once: neither the error callback nor the next retrieval sees it
        _cap_handle_rdy_data(dev, want.frame_num, want.until_empty, &req);
    } else {
        while (!priv->cap_stop && _wait_ready(priv, want.timeout_ms, deadline, caller)) {
            _cap_handle_rdy_data(dev, req.remaining, false, &req);
            if (req.remaining == 0)
                break;
        }
        failed = priv->cap_state != CAP_STATE_RUNNING;
        if (failed) {
            LOG_AS(0, "TRC", caller, "[%s]device is not capturing\n");
            result = TQCAM_ERR_CAP_WRONG_STATE;
        }
        _cap_handle_rdy_data(dev, req.remaining, want.until_empty, &req);
    }

    const uint32_t got = want.frame_num - req.remaining;
    const bool has_first = got > 0;
    if (has_first) { // with none, the size of the frames before stays
        priv->cur_w = static_cast<uint16_t>(first_info.width);
        priv->cur_h = static_cast<uint16_t>(first_info.height);
    }
    if (has_first && !failed && result == 0) {
        result = static_cast<int>(got);
        rec_save_frames(dev, want.buf, want.buf_len, got, &first_info);
    }
    if (has_first) {
        if (info)
            *info = first_info;
        const uint64_t bytes = static_cast<uint64_t>(got) * first_info.frame_size;
        if (want.buf && bytes <= want.buf_len && dev_show_frames(priv, want.buf, got, &first_info))
            return RESTART;
    }
    if (want.buf && first_info.frame_size > want.buf_len)
        LOG_AS(5, "WRN", caller, "[%s]Buffer size %u too small to keep frame (size=%u)\n", want.buf_len,
               first_info.frame_size);
    _follow_auto_intg(dev, first_info);
    LOG_AS(0, "TRC", caller, "[%s]get %d frames\n", static_cast<int>(got));
    return result;
}

int _tqcam_cap_get_frames(tqcam_dev_t *dev, const wanted_t &want, tqcam_frame_info_t *info)
{
    int result;
    do {
        result = _retrieve(dev, want, info, __func__);
    } while (result == RESTART);
    return result;
}
} // namespace

int tqcam_cap_get_frames(tqcam_dev_t *dev, uint32_t frame_num, void *buf, uint32_t buf_len,
                         tqcam_frame_t *first_frame)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return -1;
    tqcam_dev_priv_t *priv = dev->priv;
    uint32_t fps = priv->fps;
    if (fps == 0)
        priv->fps = fps = FPS_DEFAULT;
    const int64_t num = frame_num;
    wanted_t want = {frame_num, static_cast<uint8_t *>(buf), buf_len, 0, true};
    want.timeout_ms = priv->cap_mode != 0 ? TRIGGERED_TIMEOUT_MS : 1000 / fps * num + num * 1000 / 10 + 2000;
    tqcam_frame_t first = {};
    const int result = _tqcam_cap_get_frames(dev, want, &first.frame_info);
    if (first_frame)
        *first_frame = first;
    return result;
}

int tqcam_cap_get_frame(tqcam_dev_t *dev, void *buf, uint32_t buf_len, tqcam_frame_info_t *info)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return -1;
    return _tqcam_cap_get_frames(dev, {1, static_cast<uint8_t *>(buf), buf_len, 0, false}, info);
}

bool tqcam_cap_snapshot(tqcam_dev_t *dev, void *buf, uint32_t buf_len, tqcam_frame_t *first_frame)
{
    ApiGuard guard(dev);
    if (!guard) {
        LOG_ERROR("[%s]wrong parameters\n");
        return false;
    }
    if (dev->priv->cap_state == CAP_STATE_RUNNING)
        return tqcam_cap_get_frames(dev, 1, buf, buf_len, first_frame) != 0;
    tqcam_cap_start(dev);
    const int got = tqcam_cap_get_frames(dev, 1, buf, buf_len, first_frame);
    tqcam_cap_stop(dev);
    return got != 0;
}

int tqcam_cap_seek_frame(tqcam_dev_t *dev, int offset, int origin)
{
    ApiGuard guard(dev, __func__);
    if (!guard || dev->priv->ll.address.if_type != TQCAM_IF_FILE)
        return -1;
    return tqcam_ll_cap_seek(&dev->priv->ll, offset, origin);
}
