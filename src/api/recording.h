// Recording of a capture into a replay file: what the capture engine, retrieval, decoding and the parameter
// calls tell the recorder. With no recording open each call returns at once, so that callers don't ask.
//
// All of these run on application threads (parameter changes of a replay also on the link's event thread) and
// take save_lock themselves; none is called with it held. cap_cfg is under the same lock. The device isn't
// asked for a parameter with save_lock held: the replay link answers under a lock of its own, below which it
// hands parameter changes up to here.
#pragma once

#include "tqcam.h"

// Capture starts and stops. Start opens the file and writes the device's own node, if cap_cfg asks for a
// recording; stop closes streams and file. Called with cap_lock held, so that cap_cfg stays.
void _tqcam_cap_replay_start(tqcam_dev_t *dev);
void _tqcam_cap_replay_stop(tqcam_dev_t *dev);

// One retrieval got `got` frames of first->frame_size bytes, behind each other in buf, a buffer of buf_len
// bytes; frames that aren't whole in it are not recorded. Opens the distance, gray and raw streams on first
// use. buf nullptr: frames went to the callback only, and none is recorded.
void rec_save_frames(tqcam_dev_t *dev, const void *buf, uint32_t buf_len, uint32_t got,
                     const tqcam_frame_info_t *first);

// An image was decoded: kind is DRV_KIND_DIST or DRV_KIND_GRAY, others are ignored. Recorded when its en_save
// byte is set and its stream is open.
void rec_save_image(tqcam_dev_t *dev, int kind, const void *image, uint32_t bytes);

// Properties of the raw stream: a parameter that the device took, as an 8-byte integer or as size bytes.
void rec_prop_int(tqcam_dev_t *dev, const char *key, uint64_t value);
void rec_prop_general(tqcam_dev_t *dev, const char *key, const void *value, uint32_t size);

// The device changed its integration time by itself; not written when frames are recorded by hand.
void rec_auto_intg(tqcam_dev_t *dev, uint32_t intg_us);

// The device closes: ends what a capture that wasn't stopped left open.
void rec_close(tqcam_dev_t *dev);
