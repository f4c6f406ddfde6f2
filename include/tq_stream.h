/* The camera's byte stream, both ways: reassembly of frames from raw bytes (tq_stream) and the maker of the
 * packet headers that it understands (tq_ostream).
 *
 * The stream is unbroken: packets of a 36-byte header and a payload. A frame may span several packets, and
 * one packet may hold several frames. Bytes arrive in pieces of any size. The reassembler hunts headers,
 * proves them by their hash, builds frames, drops what a loss left incomplete, and keeps the newest whole
 * frames on a ready list until they are fetched. It reports no errors: each loss is counted in
 * tq_stream_state_t and told in the log at levels 0 and 1. All words of the stream are little-endian.
 *
 *   camera or replay -> tq_stream_feed_input -> ready list -> tq_stream_fetch_frames -> your buffer
 *
 * Threads: one thread feeds, any thread may fetch, read the statistics or set the limit meanwhile. Create,
 * reset and destroy are for one thread, with nothing else running on the stream. */
#ifndef TQ_STREAM_H
#define TQ_STREAM_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>

#include "tqcam_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Limits of the stream format. */
enum {
    TQ_STREAM_MAGIC = 0x98FB,            /* on the wire FB, then 98 */
    TQ_STREAM_LEN_MAX = 0x9FFFFF,        /* largest payload of one packet, bytes */
    TQ_STREAM_FRAME_LEN_MAX = 0x7FFFFFF, /* largest frame, bytes */
    TQ_STREAM_BOUND = 0x01,              /* flags0: a frame begins with this payload */
    TQ_STREAM_CKSUM = 0x01,              /* flags1: aux is a checksum of the payload */
    TQ_STREAM_META = 0x02                /* flags1: aux is the length of the meta data before the samples */
};

#pragma pack(push, 1)

/* What travels with a frame: bytes 8 to 31 of the packet header. */
typedef struct tq_frame_hdr_t {
    uint32_t frame_len; /* bytes of one frame, 1 to TQ_STREAM_FRAME_LEN_MAX */
    uint16_t frame_idx; /* wraps at 65536; in a packet header that of its first frame */
    uint16_t frame_fmt; /* format of the sensor samples, see tqcam_frame_info_t */
    uint16_t width;     /* pixels; 0 is the sensor's own */
    uint16_t height;    /* pixels; 0 is the sensor's own */
    int16_t temp_cb;    /* temperature, 0.1 degrees Celsius */
    int16_t temp_ib;    /* temperature, 0.1 degrees Celsius */
    uint32_t time;      /* bits 0-4 hour, 5-10 minute, 11-16 second, 17-31 fraction in units of 64 us */
    uint32_t aux; /* checksum or meta data length, as flags1 tells; in a fetched frame the latter or 0 */
} tq_frame_hdr_t;

/* A packet's header. */
typedef struct tq_stream_hdr_t {
    uint16_t magic;      /* TQ_STREAM_MAGIC */
    uint16_t stream_idx; /* packet counter, wraps at 65536 */
    uint32_t len;        /* payload bytes behind this header, 1 to TQ_STREAM_LEN_MAX */
    tq_frame_hdr_t frame;
    uint8_t flags0;    /* TQ_STREAM_BOUND */
    uint8_t flags1;    /* TQ_STREAM_CKSUM, TQ_STREAM_META */
    uint16_t hdr_hash; /* tq_stream_hash16 of the 34 bytes before it, seed 0 */
} tq_stream_hdr_t;

#pragma pack(pop)

/* ---- Reassembly -------------------------------------------------------------------------------------- */

typedef struct tq_stream_cfg_t {
    uint32_t rdy_limit; /* highest number of frames on the ready list; more push out the oldest */
} tq_stream_cfg_t;

/* Statistics since the last reset. */
typedef struct tq_stream_state_t {
    uint32_t assembled;  /* frames whose last byte arrived */
    uint32_t total;      /* frames moved to the ready list */
    uint32_t discarded;  /* frames given up while being assembled */
    uint32_t overflowed; /* ready frames dropped because the list was too long */
    uint32_t rdy_cnt;    /* frames on the ready list now */
    uint32_t rdy_max;    /* highest rdy_cnt seen, before the list was cut to its limit */
    uint32_t spare0;
    uint32_t discard_bytes; /* bytes lost: junk between packets, discarded and overflowed frames */
    uint64_t spare1;
    struct timeval start_time; /* time of the last reset */
} tq_stream_state_t;

typedef struct tq_stream_t tq_stream_t;

/* Checksum of packet headers and data packs: a Fletcher sum with modulus 255 (J. Fletcher, An arithmetic
 * checksum for serial transmissions, 1982). seed holds the two running sums, low byte first, so that a result
 * goes on as the seed of the next piece. With len below 1 returns the low 16 bits of seed. */
TQCAM_API uint16_t tq_stream_hash16(const void *data, int32_t len, uint32_t seed);

/* Makes a reassembler, reset and empty. cfg is copied. Returns NULL when out of memory. */
TQCAM_API tq_stream_t *tq_stream_create(const tq_stream_cfg_t *cfg);

/* Frees the reassembler with all its frames. NULL is fine. */
TQCAM_API void tq_stream_destroy(tq_stream_t *stream);

/* Starts anew: clears the statistics, drops the frame in assembly and waits for a packet that begins a frame.
 * Frames on the ready list stay but are no longer counted, so fetch them first. */
TQCAM_API void tq_stream_reset(tq_stream_t *stream);

/* Sets and reads the limit of the ready list. A lower limit takes effect with the next payload. get returns
 * cfg. */
TQCAM_API void tq_stream_set_cfg(tq_stream_t *stream, const tq_stream_cfg_t *cfg);
TQCAM_API tq_stream_cfg_t *tq_stream_get_cfg(tq_stream_t *stream, tq_stream_cfg_t *cfg);

/* Takes the next len bytes of the stream; any cutting of an intact stream gives the same frames, except that
 * payload checksums come out right only where pieces fall on four-byte bounds. Each payload byte is copied
 * once. Doesn't block but for the moment in which a fetching thread unlinks its frames.
 *
 * Returns true when frames are ready. len below 1 feeds nothing and tells just that. */
TQCAM_API bool tq_stream_feed_input(tq_stream_t *stream, const void *bytes, int32_t len);

/* Fetches up to max_frames of the oldest ready frames.
 *
 * dst      receives the frames' bytes, one behind the other; NULL takes none
 * dst_len  room in dst, bytes; a frame that doesn't fit is cut, those behind it give no bytes
 * hdr_out  receives the header of the first frame; may be NULL
 * peek     true leaves the frames where they are; with a NULL dst it only counts, and hdr_out stays as it is
 *
 * With both dst and hdr_out NULL and no peek the frames are thrown away. Returns how many frames were taken
 * (with peek: looked at), 0 when none is ready; never blocks for one to come. */
TQCAM_API uint32_t tq_stream_fetch_frames(tq_stream_t *stream, void *dst, uint32_t dst_len,
                                          uint32_t max_frames, tq_frame_hdr_t *hdr_out, bool peek);

/* Copies the statistics out; returns state. */
TQCAM_API tq_stream_state_t *tq_stream_get_state(tq_stream_t *stream, tq_stream_state_t *state);

/* ---- Packet headers ---------------------------------------------------------------------------------- */

typedef struct tq_ostream_cfg_t {
    uint8_t cksum; /* not 0: headers carry a checksum of their payload */
} tq_ostream_cfg_t;

typedef struct tq_ostream_t {
    tq_ostream_cfg_t cfg;
    uint32_t ofs;        /* bytes of the current frame sent so far */
    uint32_t frame_size; /* size of the current frame */
    uint32_t frame_idx;  /* index of the current frame, 0xFFFFFFFF when none */
    uint32_t stream_idx; /* next packet counter */
} tq_ostream_t;

/* Makes a header maker, zeroed and reset. Returns NULL when out of memory. */
TQCAM_API tq_ostream_t *tq_ostream_create(void);
TQCAM_API void tq_ostream_destroy(tq_ostream_t *os);

/* Forgets the current frame and starts the packet counter at 0; cfg stays. */
TQCAM_API void tq_ostream_reset(tq_ostream_t *os);
TQCAM_API void tq_ostream_set_cfg(tq_ostream_t *os, const tq_ostream_cfg_t *cfg);
TQCAM_API tq_ostream_cfg_t *tq_ostream_get_cfg(tq_ostream_t *os, tq_ostream_cfg_t *cfg);

/* Makes the header of the next packet. The caller sends these 36 bytes, then the payload.
 *
 * hdr        receives the header
 * frame_hdr  the frame that the packet belongs to; may lie inside hdr. frame_len and frame_idx are the
 *            caller's to keep right: packets of one index belong to one frame until frame_len is reached
 * data, len  the payload; read only when the checksum is on. A multiple of frame_len sends several frames,
 *            frame_idx being that of the first
 * meta_len   bytes of meta data in front of the samples, 0 for none; takes the place of a checksum
 *
 * Without checksum and meta data, aux goes out as frame_hdr has it. len and frame_len aren't tested against
 * the limits of the format. For one thread at a time on one header maker.
 *
 * Returns len; -1 when hdr or frame_hdr is NULL or len is negative. */
TQCAM_API int32_t tq_ostream_mkhdr(tq_ostream_t *os, tq_stream_hdr_t *hdr, const tq_frame_hdr_t *frame_hdr,
                                   const void *data, int32_t len, int32_t meta_len);

#ifdef __cplusplus
}
#endif

#endif
