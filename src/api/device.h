// The private state of an open device, and how an API call announces itself on it.
//
// Locks, in the order in which they are taken when more than one is held:
//   cap_lock    start, stop and configuration of capture, one after the other; held across the driver's
//   events
//               of a start and a stop, the only lock that is, which no driver can come to wait for
//   feed_lock   one event of the link's event thread, or the clearing of the stream before a run
//   save_lock   recording, and the stored capture configuration
//   rdy_lock    the wait for frames; inside it cap_wait and the stream's lock
//   info_lock   last_info, for an instant
// No callback runs with any of them held.
#pragma once

#include <pthread.h>

#include "tq_lens.h"
#include "tq_stream.h"
#include "tqcam.h"
#include "util/relaxed.h"

struct tqcam_drv_t;
struct oni_writer_t;
struct oni_ostream_t;

enum { CAP_STATE_IDLE = 0, CAP_STATE_RUNNING = 1, CAP_STATE_AFTER_OPEN = 255 };

// A running retrieval, on its thread's stack: a callback that retrieves has a record of its own.
struct tqcam_get_req_t {
    uint32_t frame_num; // frames requested
    uint32_t remaining; // frames still wanted
    uint8_t *buf;       // where the next frame goes
    uint32_t buf_room;  // bytes left there
    tqcam_frame_info_t *first_info;
};

// Begins with the link's record, so that one pointer serves both layers.
struct tqcam_dev_priv_t {
    tqcam_ll_dev_t ll;

    tqcam_drv_t *drv;
    uint32_t dev_id32;
    relaxed_t<uint8_t> opened; // the device is usable; most API calls test it
    uint8_t closing;           // a close has begun: no other one may, nor an open

    relaxed_t<uint8_t> cap_state; // CAP_STATE_...
    pthread_mutex_t cap_lock;     // recursive
    tqcam_cap_cfg_t cap_cfg;      // under save_lock; save_file is owned

    pthread_mutex_t save_lock; // guards the writer, its streams and cap_cfg
    oni_writer_t *save_writer;
    oni_ostream_t *save_raw, *save_dist, *save_gray;

    tq_stream_t *stream;
    pthread_mutex_t feed_lock;    // the feeding side of stream, and last_state
    tq_stream_state_t last_state; // as the event thread saw it last
    pthread_mutex_t info_lock;
    tqcam_frame_info_t last_info; // of the frame taken from the stream last; under info_lock
    tqcam_dev_info_t info;

    // Capture run state: plain words written on the event thread and read without a lock.
    relaxed_t<uint32_t> cap_stop, timeout_cnt, stall_cnt, discard_total;
    relaxed_t<int32_t> cap_err; // pending code for the application
    relaxed_t<uint8_t> cap_force_stop;
    relaxed_t<uint64_t> cap_err_data;

    // Copies of the device's parameters: written by setters, read by capture and by the drivers.
    relaxed_t<uint32_t> dev_mode, fps, cap_mode;
    relaxed_t<uint32_t> mod_freq, dual_freq0, dual_freq1;
    relaxed_t<uint32_t> intg_us, intg2_us, frame_fmt;
    relaxed_t<uint16_t> cur_w, cur_h; // of the frames retrieved last
    uint16_t max_w, max_h;

    // Largest frame that the driver was shown: it may give one back of that size, and isn't told the room for
    // it.
    relaxed_t<uint32_t> shown_max;

    pthread_cond_t rdy_cond;
    pthread_mutex_t rdy_lock; // before the stream's lock, if both; guards no data but the wait

    tqcam_lens_calib_cfg_t lens_cfg;
    tq_calib_len_map_t lens_map;

    relaxed_t<uint32_t> func_mask; // feature marks
};

// Is this handle open? Says in the log, under the caller's name, when it isn't. Another thread may close it
// right afterwards: a call that goes on to work on the device enters an ApiGuard, which tests by itself.
bool dev_is_open(const tqcam_dev_t *dev, const char *caller);

// The device's driver in use by a call; none before one is chosen, and after another device of the same chip,
// which had taken its row over, closed. Devices of one chip share its row: while one of them binds it, or
// lets it go, with all that the row leads to, calls on the others wait. For the moment of an operation or
// two: never across a callback, which may open and close devices.
class DrvUse {
  public:
    explicit DrvUse(const tqcam_dev_priv_t *priv);
    ~DrvUse();
    DrvUse(const DrvUse &) = delete;
    DrvUse &operator=(const DrvUse &) = delete;
    tqcam_drv_t *operator->() const { return drv_; }
    operator tqcam_drv_t *() const & { return drv_; }
    operator tqcam_drv_t *() const && = delete; // the use would end at once

  private:
    const tqcam_drv_t *row_;
    tqcam_drv_t *drv_;
};

// Runs a driver's init for the device, or its uninit if the row is still the device's.
bool dev_drv_bind(tqcam_dev_t *dev);
void dev_drv_release(tqcam_dev_t *dev);

// Shows the driver count retrieved frames of info->frame_size bytes, which raw has room for. True when the
// driver took them for itself.
bool dev_show_frames(tqcam_dev_priv_t *priv, void *raw, uint32_t count, const tqcam_frame_info_t *info);

// The information of the frame taken from the stream last.
tqcam_frame_info_t dev_last_info(tqcam_dev_priv_t *priv);

// Make and end the count of calls in flight. dev_count_create ends the process when out of memory.
void dev_count_create(tqcam_dev_t *dev);
void dev_count_destroy(tqcam_dev_t *dev);
uint32_t dev_count_active(tqcam_dev_t *dev);

// An API call in flight: counts itself on the handle while it stands. tqcam_dev_close waits for the count,
// and lets no call begin while it takes the device down: entering tests the handle and counts in one step.
// The lock guards the count alone and is never held across work.
//
//   ApiGuard guard(dev, __func__);
//   if (!guard)
//       return false;
class ApiGuard {
  public:
    // Enters if the handle is open; logs under the caller's name if it isn't. caller nullptr logs nothing.
    ApiGuard(tqcam_dev_t *dev, const char *caller);
    explicit ApiGuard(tqcam_dev_t *dev) : ApiGuard(dev, nullptr) {}
    ~ApiGuard();
    ApiGuard(const ApiGuard &) = delete;
    ApiGuard &operator=(const ApiGuard &) = delete;
    explicit operator bool() const { return dev_ != nullptr; }

    // The calling thread's outermost call on this device, or nullptr: a close from a callback runs inside
    // one.
    static ApiGuard *outermost(const tqcam_dev_t *dev);
    // The device closes when this call leaves.
    void close_on_leave() { close_on_leave_ = true; }

  private:
    tqcam_dev_t *dev_ = nullptr;
    ApiGuard *outer_ = nullptr; // the guard around this one on this thread, of whatever device
    bool close_on_leave_ = false;
};

// Holds a device in place while a word is read from its private state, also before it is open.
class DevPeek {
  public:
    explicit DevPeek(const tqcam_dev_t *dev);
    ~DevPeek();
    DevPeek(const DevPeek &) = delete;
    DevPeek &operator=(const DevPeek &) = delete;
    tqcam_dev_priv_t *priv; // nullptr for a closed device
};

// Keeps every DevPeek and ApiGuard from entering or leaving while the handle's own words change.
class DevGate {
  public:
    DevGate();
    ~DevGate();
    DevGate(const DevGate &) = delete;
    DevGate &operator=(const DevGate &) = delete;
};

// How often a close looks for calls in flight, every 100 ms, before it goes on without them. 200; tests lower
// it.
extern int dev_close_polls;

// The second half of tqcam_dev_close: takes the device down when no call is in flight any more.
void dev_dismantle(tqcam_dev_t *dev);

class MutexLock {
  public:
    explicit MutexLock(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~MutexLock() { pthread_mutex_unlock(mutex_); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

  private:
    pthread_mutex_t *mutex_;
};
