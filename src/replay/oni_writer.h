// Writes ONI files (oni_format.h). Every record is staged in one buffer and goes out with one write; each
// stream keeps its seek entries in memory, and closing goes back to fix up its node record and the file
// header. A file that was not closed names no node in its header and can't be opened, though its frames are
// all there.
//
// A node must be complete, its properties set, before the frames that they apply to; the reader meets records
// in file order only. Write errors are not reported to the caller. When the file takes no more, the log says
// so once (and ferror of fp stays set), the record that was cut is taken back whole, and nothing is appended
// any more: what was recorded until then stays readable. Not thread-safe.
#pragma once

#include <cstdint>
#include <cstdio>

#include "replay/oni_format.h"

struct oni_writer_t;
struct oni_prop_pos_t;

// What a caller gives to open a stream.
struct oni_stream_cfg_t {
    uint32_t type; // node type
    const char
        *name; // NULL for the type's default: "Device", "Depth", "Image", "IR"; else copied by the record
    uint32_t pix_fmt;   // pixel format word: 100 to 103 depth, 200 to 204 image and gray, 0 none
    uint32_t max_value; // largest sample value plus 1; the "16zT" codec takes no sample beyond it
    uint32_t width, height;
    uint32_t bpp; // bytes a pixel
    uint32_t fps;
};

struct oni_ostream_t {
    uint8_t started; // the node data begin record is out
    oni_stream_cfg_t cfg;
    char *name; // own copy of the name, which closing writes again
    uint32_t node_id;
    uint32_t codec; // ONI_CODEC_NONE, unless set before the first frame; closing records it
    uint32_t frame_count;
    oni_writer_t *writer;    // NULL once closed
    uint64_t node_pos;       // file position of the node-added record
    uint64_t last_frame_pos; // the last frame's undo position, or 0
    oni_prop_pos_t *props;   // hash map: property name to the file position of its last record
    uint64_t last_ts;        // timestamp of the last frame
    uint8_t *seek_list;      // frame_count entries, as they go into the file
    uint32_t seek_room;      // entries that seek_list has room for
    uint8_t seek_lost;       // out of memory for it: no table is written
};

struct oni_writer_t {
    uint8_t *buf;      // staging buffer for one record
    uint32_t buf_size; // its capacity; 0 makes every write a no-op
    uint8_t *cursor;   // write position in buf
    FILE *fp;          // unbuffered: what a failed write left behind must not come out later
    uint8_t full;      // the file takes no more; tried again for the records that close it
    uint8_t full_told;
    uint32_t max_node_id;
    oni_ostream_t *streams[ONI_MAX_NODES];
};

// Creates or truncates the file. NULL when that fails or memory is out.
oni_writer_t *oni_writer_open(const char *path);

// Closes the streams that are still open, writes the end record and the final header, and frees all of it,
// the streams too. NULL is fine.
void oni_writer_close(oni_writer_t *writer);

// Adds a node with the published properties of its type. The stream belongs to the writer. NULL when all 8
// slots are taken (a closed stream keeps its slot), on NULL arguments, and when memory is out.
oni_ostream_t *oni_ostream_open(oni_writer_t *writer, const oni_stream_cfg_t *cfg);

// Writes the seek table and completes the node record; afterwards the stream takes no property and no frame.
void oni_ostream_close(oni_ostream_t *stream);

// Records a property. kind is of oni_prop_kind_t: value points at 8 bytes for an int or a real, whose size is
// ignored, at a NUL-terminated text for a string, or at size bytes.
void oni_ostream_set_property(oni_ostream_t *stream, int kind, const char *name, const void *value,
                              uint32_t size);

// Records a frame of len bytes and flushes the file. ts is in microseconds; 0 takes the clock. A frame that
// doesn't fit the staging buffer (above 3145985 bytes) is recorded without its bytes.
void oni_ostream_save_frame(oni_ostream_t *stream, const void *data, uint32_t len, uint64_t ts);
