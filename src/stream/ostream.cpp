// Makes packet headers: packet counter, frame bound, checksum, hash.
#include "tq_stream.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "log/log.h"
#include "stream/checksum.h"

tq_ostream_t *tq_ostream_create(void)
{
    tq_ostream_t *os = static_cast<tq_ostream_t *>(std::calloc(1, sizeof(tq_ostream_t)));
    if (os != nullptr)
        tq_ostream_reset(os);
    return os;
}

void tq_ostream_destroy(tq_ostream_t *os)
{
    std::free(os);
}

void tq_ostream_reset(tq_ostream_t *os)
{
    os->ofs = 0;
    os->frame_size = 0;
    os->frame_idx = UINT32_MAX;
    os->stream_idx = 0;
}

void tq_ostream_set_cfg(tq_ostream_t *os, const tq_ostream_cfg_t *cfg)
{
    os->cfg = *cfg;
}

tq_ostream_cfg_t *tq_ostream_get_cfg(tq_ostream_t *os, tq_ostream_cfg_t *cfg)
{
    *cfg = os->cfg;
    return cfg;
}

int32_t tq_ostream_mkhdr(tq_ostream_t *os, tq_stream_hdr_t *hdr, const tq_frame_hdr_t *frame_hdr,
                         const void *data, int32_t len, int32_t meta_len)
{
    if (frame_hdr == nullptr || hdr == nullptr || len < 0)
        return -1;
    const uint32_t n = static_cast<uint32_t>(len);
    // Made apart, since frame_hdr may overlap the header that is written.
    tq_stream_hdr_t made = {};
    std::memcpy(&made.frame, frame_hdr, sizeof made.frame);
    made.magic = TQ_STREAM_MAGIC;
    made.stream_idx = static_cast<uint16_t>(os->stream_idx++);
    made.len = n;

    const bool same = os->frame_idx == made.frame.frame_idx;
    if (same && os->ofs < os->frame_size) {
        os->ofs += n;
    } else {
        if (same)
            LOG_WARN("[%s]tq_ostream: ofs %u >= frame size %u, force fr_bound\n", os->ofs, os->frame_size);
        made.flags0 = TQ_STREAM_BOUND;
        os->frame_idx = made.frame.frame_idx;
        os->ofs = n;
    }
    os->frame_size = made.frame.frame_len;

    made.flags1 = os->cfg.cksum & TQ_STREAM_CKSUM;
    if (os->cfg.cksum != 0) {
        if (meta_len > 0)
            LOG_WARN("[%s]tq_ostream: stream meta data not support if data cksum is enabled\n");
        made.frame.aux = stream_sum32(static_cast<const uint8_t *>(data), n);
    }
    if (meta_len > 0) {
        made.frame.aux = static_cast<uint32_t>(meta_len);
        made.flags1 = TQ_STREAM_META;
    }
    made.hdr_hash = tq_stream_hash16(&made, offsetof(tq_stream_hdr_t, hdr_hash), 0);
    std::memcpy(hdr, &made, sizeof made);
    return len;
}
