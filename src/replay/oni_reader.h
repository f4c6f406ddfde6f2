// Reads ONI files (oni_format.h). The position in the file is the only cursor, for all streams of a reader:
// reading a frame of one stream passes over what lies before it, and every property on the way reaches the
// sink.
//
// Nothing in the file is trusted: a record that doesn't add up is an error, garbage between records is
// skipped. All failures are logged. Not thread-safe; the owner serialises calls.
#pragma once

#include <cstdint>
#include <cstdio>

#include "replay/oni_format.h"

// A record's body is read in one piece into a buffer of this capacity; larger records are refused.
inline constexpr uint32_t ONI_RDBUF_SIZE = 3145984;

struct oni_reader_t;

// Property sink, called on the reading thread from inside the parser; it must not call the reader, but for
// oni_reader_cur_stream, which during a call is the node of the property. value points at a u64 for an int, a
// double for a real (size 8 each), at the text for a string (size is its length plus 1), or at size bytes.
typedef void (*oni_prop_cb_t)(oni_reader_t *reader, int kind, const char *name, const void *value,
                              uint32_t size, void *arg);

// One stream, in the slot of its node id.
struct oni_istream_t {
    oni_reader_t *reader;
    uint32_t type, codec;
    uint32_t frame_count; // ONI_FRAMES_UNKNOWN when the recording was cut off
    uint64_t min_ts, max_ts;
    uint64_t seek_pos;
    uint32_t node_id;
    char *name;
    uint32_t frame_idx;  // frames consumed so far
    uint64_t data_start; // file position just behind the node-added record
    uint8_t *seek_table; // seek_count entries as in the file, without entry 0; or NULL
    uint32_t seek_count;
    uint8_t valid; // the slot is in use
};

// A record header as read.
struct oni_rec_hdr_t {
    uint32_t magic, type, node_id, fields_size, payload_size;
    uint64_t undo_pos;
};

struct oni_reader_t {
    oni_istream_t *streams; // max_node_id slots; node id n has slot n - 1
    int32_t stream_count;   // node-added records seen for the first time
    uint8_t *rdbuf;         // body of the current record
    uint32_t rd_idx, rd_len;
    uint32_t rdbuf_size;
    oni_rec_hdr_t hdr;
    uint8_t in_body;      // a record's body is being read
    const char *name;     // of the current property or node, into rdbuf
    const uint8_t *value; // of the current property or frame, into rdbuf
    uint32_t value_len;
    uint64_t timestamp; // of the current frame, microseconds
    uint32_t frame_id;
    const uint8_t *node_fields; // of the current node-added record, into rdbuf
    uint8_t old_format;
    oni_prop_cb_t on_property;
    void *arg;
    FILE *fp;
    uint64_t file_size;
    uint64_t first_data_pos; // just behind the first node data begin record
    uint8_t file_hdr[ONI_FILE_HDR_SIZE];
    uint32_t max_node_id;
    uint8_t opened; // the open sequence ended well
};

// Opens a file and reads its head, up to the first frames. The properties there have reached the sink when it
// returns; the others arrive while frames are read. NULL on failure.
oni_reader_t *oni_reader_open(const char *path, oni_prop_cb_t on_property, void *arg);

// NULL is fine.
void oni_reader_close(oni_reader_t *reader);

// Back to the first stream's beginning.
void oni_reader_rewind(oni_reader_t *reader);

// The slot of the current record's node; NULL when no record is being read or its node is not known.
oni_istream_t *oni_reader_cur_stream(oni_reader_t *reader);

// Goes to the stream's next frame, whose bytes stand in the reader's value and value_len until the next call
// on the reader. Returns 1, 0 at the end of the file, -1 on an error.
int oni_istream_next(oni_istream_t *stream);

// Delivers the frame that oni_istream_next went to: decoded if it is coded, else cut to buf_size bytes.
// Returns bytes delivered, 0 when it can't be decoded.
int oni_istream_deliver(oni_istream_t *stream, void *buf, int buf_size);

// The two in one, with the frame's timestamp in milliseconds and its id, either of which may be NULL. Returns
// bytes delivered, 0 at the end of the file, -1 on an error.
int oni_istream_get_frame(oni_istream_t *stream, void *buf, int buf_size, uint64_t *ts_ms,
                          uint32_t *frame_id);

// Goes to a frame, counted from the start (origin 0), the current frame (1) or the end (2), and held to what
// the stream has. A seek to frame n consumes it: frame n + 1 comes next, and 0 is the beginning. Returns the
// new frame_idx or -1. A stream without a seek table is read through instead, and then twice the frame is
// returned.
int oni_istream_seek_frame(oni_istream_t *stream, int offset, int origin);
