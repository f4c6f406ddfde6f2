// The private state of an open device, and how an API call announces itself on it.
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

// A running retrieval, on its thread's stack.
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

    relaxed_t<uint8_t> cap_state; // CAP_STATE_...
    tqcam_cap_cfg_t cap_cfg;

    pthread_mutex_t save_lock; // guards the writer and its streams
    oni_writer_t *save_writer;
    oni_ostream_t *save_raw, *save_dist, *save_gray;

    tq_stream_t *stream;
    tq_stream_state_t last_state; // as the event thread saw it last
    tqcam_frame_info_t last_info; // of the frame taken from the stream last
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

    pthread_cond_t rdy_cond;
    pthread_mutex_t rdy_lock; // before the stream's lock, if both; guards no data but the wait
    tqcam_get_req_t *get_req; // retrieval's thread alone

    tqcam_lens_calib_cfg_t lens_cfg;
    tq_calib_len_map_t lens_map;

    relaxed_t<uint32_t> func_mask; // feature marks
};

// Is this handle open? Says in the log, under the caller's name, when it isn't.
bool dev_is_open(const tqcam_dev_t *dev, const char *caller);

// An API call in flight: counts itself on the handle while it stands. tqcam_dev_close waits for the count.
// The lock guards the count alone and is never held across work.
class ApiGuard {
  public:
    explicit ApiGuard(tqcam_dev_t *dev);
    ~ApiGuard();
    ApiGuard(const ApiGuard &) = delete;
    ApiGuard &operator=(const ApiGuard &) = delete;

  private:
    tqcam_dev_t *dev_;
};
