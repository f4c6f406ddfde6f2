// The replay link: a recorded file in the place of a camera. It answers parameter reads from the file's
// properties, paces the recorded frames on an event thread of its own, and hands each one, behind a stream
// header of its own making, to the same callback that USB data reaches.
#pragma once

#include <cstdio>
#include <pthread.h>

#include "link/link_ops.h"
#include "replay/oni_reader.h"
#include "tqcam.h"
#include "util/relaxed.h"

// Locks, in the order in which they nest:
//   rx_lock    held by the event thread while the callback runs, so that a stop can wait for it, and by a
//              start; outside file_lock
//   file_lock  guards reader and stream. The property sink runs under it, and on to the parameter calls of
//              the API with their locks: nothing that these reach may take it
//   prop_lock  guards what the properties say; held for copies only, nothing is called under it
//   wait_lock  guards the permit alone; a retrieval takes it inside rdy_lock
// dev_close joins the event thread with file_lock held. So the event thread never waits for file_lock: it
// tries, and gives up once exit is set.
struct file_ll_priv_t {
    oni_reader_t *reader;  // NULL while the head of the file is read, which is how the sink tells it
    oni_istream_t *stream; // the one named "TQ_REPLAY"

    // What the file's properties say.
    pthread_mutex_t prop_lock;
    float rep_ver;
    relaxed_t<uint8_t> sim_mode; // 1 paced by fps, 0 one frame for each permit
    uint32_t subframes;          // raw sub-images in a frame
    relaxed_t<uint32_t> fps;     // 0 waits for permits in either mode
    uint32_t mod_freq;           // Hz
    uint32_t intg1_us, intg2_us;
    uint32_t frames_out;             // frames delivered since cap_start; under rx_lock
    uint32_t dual_freq0, dual_freq1; // Hz
    uint64_t dev_id;
    uint16_t pid, wid, cid; // out of dev_id
    uint32_t serial0;
    char calib_name[128]; // calibration file written out of the replay
    char product[32];
    uint8_t dev_ver[8];
    tqcam_frame_info_t frame_info; // of the next frame
    uint8_t roi[13];               // value of parameter 9
    uint16_t max_w, max_h;         // largest frame seen in the file
    uint16_t max_fps, max_intg_us;
    uint8_t binning[2];
    FILE *calib_fp; // while the head is read

    relaxed_t<uint8_t> stopped; // capture is not running
    uint8_t loop;               // begin again at the end; file_lock
    uint8_t hollow_rounds;      // ends met without a frame before them; file_lock
    uint32_t run;               // counts the starts; written under rx_lock and file_lock, read under either
    tqcam_ll_rx_cb_t on_rx;     // rx_lock
    void *on_rx_arg;
    pthread_t thread;
    relaxed_t<uint32_t> exit; // the event thread must end
    relaxed_t<uint8_t> running;

    pthread_cond_t wait_cond;
    pthread_mutex_t wait_lock;
    uint8_t wait_flag; // a permit for one frame

    pthread_mutex_t rx_lock;
    pthread_mutex_t file_lock;
};

tqcam_ll_dev_t *file_ll_dev_open(tqcam_ll_dev_t *dev);
void file_ll_dev_close(tqcam_ll_dev_t *dev);

// cap_stop and cap_start wait for a callback that is running, unless called from it; a callback may call
// cap_stop and cap_abort and nothing else of this link, and not while another thread closes the device.
bool file_ll_cap_start(tqcam_ll_dev_t *dev, uint32_t mode, tqcam_ll_rx_cb_t cb, void *arg);
bool file_ll_cap_stop(tqcam_ll_dev_t *dev);
int file_ll_cap_seek(tqcam_ll_dev_t *dev, int offset, int origin);
void file_ll_cap_wait(tqcam_ll_dev_t *dev);

bool file_ll_param_set(tqcam_ll_dev_t *dev, const tqcam_ll_param_t *items, int count);
bool file_ll_param_get(tqcam_ll_dev_t *dev, tqcam_ll_param_t *items, int count);

// The reader's sink; arg is the device record. Properties of the streams "TQ_REPLAY" and "Device" are taken
// into the private state; those met among the frames also go to the handle above, and so to the chip driver.
void _fill_ll_on_get_property(oni_reader_t *reader, int kind, const char *key, const void *value,
                              uint32_t size, void *arg);

// A lock for as long as it stands.
class file_ll_locked_t {
  public:
    explicit file_ll_locked_t(pthread_mutex_t *lock) : lock_(lock) { pthread_mutex_lock(lock_); }
    ~file_ll_locked_t() { pthread_mutex_unlock(lock_); }
    file_ll_locked_t(const file_ll_locked_t &) = delete;
    file_ll_locked_t &operator=(const file_ll_locked_t &) = delete;

  private:
    pthread_mutex_t *lock_;
};
