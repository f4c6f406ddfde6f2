// The feeding side of the reassembler: hunts packet headers, proves them, follows frames over packets and
// resynchronises after a loss. Runs on one thread and touches what it shares with others only in the ready
// list and the counters.
//
// Implicit states, told by three words:
//
//                        hdr_got  need_bound  pkt_done  leaves by
//   hunting              0        any         0         a match: partial or full header
//   partial header       1 to 35  any         0         header full; one that fails leads back to hunting
//   skipping to a bound  36       1           0 or 1    header with frame bound
//   payload              36       0           0         pkt_used reaching len
//   packet end           36       0           1         noting the packet, then hunting
//
// A packet that is skipped is hunted over byte by byte, not stepped over by its length: its header may be the
// damaged part. The bytes of a partial header are not hunted again when it fails.
#include "stream/stream.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include "log/log.h"
#include "stream/checksum.h"

namespace {
constexpr uint32_t HDR_LEN = sizeof(tq_stream_hdr_t);
constexpr uint8_t MAGIC0 = TQ_STREAM_MAGIC & 0xFF, MAGIC1 = TQ_STREAM_MAGIC >> 8;
constexpr const char *FEED = "tq_stream_feed_input";

// The bytes of one feed.
struct input_t {
    const uint8_t *bytes;
    uint32_t len, pos;

    const uint8_t *at() const { return bytes + pos; }
    uint32_t left() const { return len - pos; }
};

bool _bound(const tq_stream_hdr_t &hdr)
{
    return (hdr.flags0 & TQ_STREAM_BOUND) != 0;
}

void _add(std::atomic<uint32_t> &counter, uint32_t n)
{
    counter.fetch_add(n, std::memory_order_relaxed);
}

uint8_t *_hdr_bytes(tq_stream_t *stream)
{
    return reinterpret_cast<uint8_t *>(&stream->hdr);
}

bool _hdr_valid(const uint8_t *candidate)
{
    tq_stream_hdr_t hdr;
    std::memcpy(&hdr, candidate, sizeof hdr);
    return hdr.magic == TQ_STREAM_MAGIC &&
           tq_stream_hash16(candidate, offsetof(tq_stream_hdr_t, hdr_hash), 0) == hdr.hdr_hash &&
           hdr.len - 1 < TQ_STREAM_LEN_MAX && hdr.frame.frame_len - 1 < TQ_STREAM_FRAME_LEN_MAX;
}

// The header in stream->hdr is whole and proven: its packet begins.
void _begin_packet(tq_stream_t *stream, const char *found)
{
    stream->hdr_got = HDR_LEN;
    stream->pkt_used = 0;
    stream->pkt_cksum = 0;
    stream->pkt_frames = 0;
    const tq_stream_hdr_t &hdr = stream->hdr;
    LOG_AS(0, "TRC", "_sync_stream_hdr", "[%s]%s: idx/len=%d/%d (frlen=%d,idx=%d,fmt=%d,b=%d,e=%d,mlen=%d)\n",
           found, hdr.stream_idx, static_cast<int>(hdr.len), static_cast<int>(hdr.frame.frame_len),
           hdr.frame.frame_idx, hdr.frame.frame_fmt, hdr.flags0 & TQ_STREAM_BOUND,
           hdr.flags1 & TQ_STREAM_CKSUM, hdr.flags1 & TQ_STREAM_META ? static_cast<int>(hdr.frame.aux) : 0);
}

// Goes on with a header that an earlier feed began. False when it turns out to be none; the bytes of this
// feed are then all still there.
bool _continue_hdr(tq_stream_t *stream, input_t *in)
{
    const uint32_t n = std::min<uint32_t>(HDR_LEN - stream->hdr_got, in->left());
    std::memcpy(_hdr_bytes(stream) + stream->hdr_got, in->at(), n);
    if (stream->hdr_got + n == HDR_LEN) {
        if (!_hdr_valid(_hdr_bytes(stream))) {
            stream->hdr_got = 0;
            return false;
        }
        _begin_packet(stream, "HDR found ");
    } else {
        stream->hdr_got = static_cast<uint8_t>(stream->hdr_got + n);
    }
    in->pos += n;
    return true;
}

// Hunts the next header: whole, or as much of one as stands at the end of the input.
void _sync_stream_hdr(tq_stream_t *stream, input_t *in)
{
    if (stream->pkt_done) {
        stream->pkt_done = 0;
        stream->hdr_got = 0;
    }
    const uint8_t *at = in->at(), *const end = in->bytes + in->len;
    while (end - at >= 2) {
        at = static_cast<const uint8_t *>(std::memchr(at, MAGIC0, static_cast<size_t>(end - at - 1)));
        if (at == nullptr)
            break;
        if (at[1] == MAGIC1) {
            const size_t n = std::min<size_t>(HDR_LEN, static_cast<size_t>(end - at));
            if (n < HDR_LEN) {
                std::memcpy(&stream->hdr, at, n);
                stream->hdr_got = static_cast<uint8_t>(n);
                in->pos = in->len;
                return;
            }
            if (_hdr_valid(at)) {
                std::memcpy(&stream->hdr, at, n);
                _begin_packet(stream, "HDR found");
                in->pos = static_cast<uint32_t>(at + n - in->bytes);
                return;
            }
            stream->hdr_got = 0;
        }
        at++;
    }
    if (end[-1] == MAGIC0) {
        *_hdr_bytes(stream) = MAGIC0;
        stream->hdr_got = 1;
    }
    in->pos = in->len;
}

void _discard_cur_frame(tq_stream_t *stream)
{
    if (stream->asm_head == nullptr || stream->asm_head->prev->used == stream->asm_head->prev->size)
        return;
    tq_fr_node_t *node = fr_list_take_tail(&stream->asm_head);
    _add(stream->state.discard_bytes, node->used);
    _add(stream->state.discarded, 1);
    LOG_DEBUG("[%s]discard frame: idx = %d\n", node->hdr.frame_idx);
    std::free(node);
}

// A header is at hand: does its packet go on with what is being assembled?
void _judge_hdr(tq_stream_t *stream, const input_t *in)
{
    const tq_stream_hdr_t &hdr = stream->hdr;
    const uint16_t fidx = hdr.frame.frame_idx;
    const bool bound = _bound(hdr);
    if (stream->need_bound) {
        if (!bound) {
            LOG_AS(0, "TRC", FEED, "[%s]HDR skip: no fr-bound @ %u/%u \n", in->pos, in->len);
            return;
        }
        stream->need_bound = 0;
        stream->prev_sidx = STREAM_IDX_UNKNOWN;
    }
    if (bound) {
        if (stream->asm_head != nullptr) {
            LOG_AS(1, "DBG", FEED, "[%s]discard frame: frame bound met, prev not complete\n");
            _discard_cur_frame(stream);
            stream->prev_sidx = STREAM_IDX_UNKNOWN;
            return;
        }
        const uint16_t expected = static_cast<uint16_t>(stream->prev_fidx + stream->fidx_step);
        if (stream->state.assembled.load(std::memory_order_relaxed) != 0 &&
            stream->prev_fidx != STREAM_IDX_UNKNOWN && expected != fidx)
            LOG_AS(1, "DBG", FEED, "[%s]missing frame: jumpping frame idx (prev=%d, cur=%d)\n", expected,
                   fidx);
        return; // a gap of packets in front of a frame bound is no fault
    }
    if (stream->prev_fidx != STREAM_IDX_UNKNOWN && stream->prev_fidx != fidx) {
        LOG_AS(1, "DBG", FEED, "[%s]discard frame: frame idx not consist (prev=%d, cur=%d)\n",
               static_cast<int>(stream->prev_fidx), fidx);
        _discard_cur_frame(stream);
        stream->prev_sidx = STREAM_IDX_UNKNOWN;
        return;
    }
    if (stream->prev_sidx != STREAM_IDX_UNKNOWN &&
        static_cast<uint16_t>(stream->prev_sidx + 1) != hdr.stream_idx) {
        LOG_AS(1, "DBG", FEED, "[%s]discard frame: stream hdr idx not correct (prev=%d, cur=%d)\n",
               static_cast<int>(stream->prev_sidx), hdr.stream_idx);
        stream->need_bound = 1;
        _discard_cur_frame(stream);
    }
}

// What a hunt, begun at from, has found.
void _after_hunt(tq_stream_t *stream, const input_t *in, uint32_t from)
{
    const uint32_t used = in->pos - from;
    const bool whole = stream->hdr_got == HDR_LEN;
    const uint32_t skip = used > HDR_LEN ? used - HDR_LEN : 0;
    LOG_AS(0, "TRC", FEED, "[%s]raw @ %u/%u: sync hdr use %u [valid=%u, len=%u, skip=%u]\n", from, in->len,
           used, static_cast<unsigned>(whole), whole ? stream->hdr.len : 0, skip);
    if (stream->hdr_got == 0) {
        LOG_AS(0, "TRC", FEED, "[%s]not find hdr: skip %u bytes\n", used);
    } else if (!whole) {
        LOG_AS(0, "TRC", FEED, "[%s]partial hdr found: %u/%u.\n", stream->hdr_got, HDR_LEN - stream->hdr_got);
    } else {
        _add(stream->state.discard_bytes, skip);
        _judge_hdr(stream, in);
    }
}

tq_fr_node_t *_fr_node_new(const tq_stream_t *stream)
{
    const uint32_t size = stream->hdr.frame.frame_len;
    tq_fr_node_t *node = static_cast<tq_fr_node_t *>(std::malloc(sizeof(tq_fr_node_t) + size));
    if (node == nullptr)
        return nullptr;
    node->hdr = stream->hdr.frame;
    node->hdr.frame_idx = static_cast<uint16_t>(node->hdr.frame_idx + stream->pkt_frames);
    if (!(stream->hdr.flags1 & TQ_STREAM_META))
        node->hdr.aux = 0;
    node->used = 0;
    node->size = size;
    return node;
}

// Puts payload into the frame in assembly and into new ones. False when out of memory.
bool _fr_node_add_data(tq_stream_t *stream, const uint8_t *piece, uint32_t n)
{
    tq_fr_node_t *tail = stream->asm_head != nullptr ? stream->asm_head->prev : nullptr;
    while (n > 0) {
        const bool begun = tail != nullptr && tail->used < tail->size;
        if (!begun) {
            tail = _fr_node_new(stream);
            if (tail == nullptr) {
                LOG_ERROR("[%s]malloc failed: %d bytes\n",
                          static_cast<int>(sizeof(tq_fr_node_t) + stream->hdr.frame.frame_len));
                _add(stream->state.discarded, 1);
                _add(stream->state.discard_bytes, n);
                return false;
            }
            fr_list_append(&stream->asm_head, tail);
        }
        const uint32_t fits = std::min(tail->size - tail->used, n);
        std::memcpy(fr_node_bytes(tail) + tail->used, piece, fits);
        tail->used += fits;
        piece += fits;
        n -= fits;
        if (tail->used == tail->size) {
            _add(stream->state.assembled, 1);
            stream->pkt_frames++;
        }
        if (begun)
            LOG_TRACE("[%s]frame#%u assembly: %u/%u\n", tail->hdr.frame_idx, tail->used, tail->size);
    }
    return true;
}

// The rest of the packet is worthless: hunt over it for the next frame bound.
void _give_up_packet(tq_stream_t *stream)
{
    stream->pkt_used = 0;
    stream->pkt_cksum = 0;
    stream->need_bound = 1;
    stream->pkt_done = 1;
}

void _take_payload(tq_stream_t *stream, input_t *in)
{
    const tq_stream_hdr_t &hdr = stream->hdr;
    const uint32_t n = std::min(hdr.len - stream->pkt_used, in->left());
    const bool cksum = (hdr.flags1 & TQ_STREAM_CKSUM) != 0;
    stream->pkt_used += n;
    if (cksum) // of each piece, so that it is right only where pieces fall on four-byte bounds
        stream->pkt_cksum += stream_sum32(in->at(), n);

    const bool last = stream->pkt_used == hdr.len;
    if (last && cksum && hdr.frame.aux != stream->pkt_cksum) {
        LOG_AS(1, "DBG", FEED, "[%s]discard frame: verify data checksum failed: sidx=%d\n", hdr.stream_idx);
        _discard_cur_frame(stream);
        _give_up_packet(stream);
    } else {
        if (last) {
            stream->pkt_done = 1;
            stream->pkt_used = 0;
            stream->pkt_cksum = 0;
        }
        if (!_fr_node_add_data(stream, in->at(), n))
            _give_up_packet(stream);
        if (stream->asm_head != nullptr && stream->asm_head->used == stream->asm_head->size)
            _fr_list_refresh(stream);
        stream_counters_t &state = stream->state;
        const uint32_t ready = state.rdy_cnt.load(std::memory_order_relaxed);
        if (ready > state.rdy_max.load(std::memory_order_relaxed))
            state.rdy_max.store(ready, std::memory_order_relaxed);
        _fr_list_drop_excess(stream);
    }
    LOG_AS(0, "TRC", FEED, "[%s]raw @ %u/%u[data use %u]\n", in->pos, in->len, n);
    in->pos += n;
}

// A packet ended, or is skipped: note what the next one should follow.
void _note_packet(tq_stream_t *stream)
{
    const tq_stream_hdr_t &hdr = stream->hdr;
    stream->prev_sidx = hdr.stream_idx;
    stream->prev_fidx = hdr.frame.frame_idx;
    stream->fidx_step = 1;
    if (hdr.len > hdr.frame.frame_len)
        stream->fidx_step = static_cast<uint16_t>(hdr.len / hdr.frame.frame_len);
}
} // namespace

tq_stream_t *tq_stream_create(const tq_stream_cfg_t *cfg)
{
    tq_stream_t *stream = new (std::nothrow) tq_stream_t{};
    if (stream == nullptr || pthread_rwlock_init(&stream->lock, nullptr) != 0) {
        delete stream;
        return nullptr;
    }
    tq_stream_set_cfg(stream, cfg);
    tq_stream_reset(stream);
    return stream;
}

void tq_stream_destroy(tq_stream_t *stream)
{
    if (stream == nullptr)
        return;
    tq_stream_reset(stream);
    pthread_rwlock_wrlock(&stream->lock);
    fr_list_free(stream->rdy_head);
    stream->rdy_head = nullptr;
    pthread_rwlock_unlock(&stream->lock);
    pthread_rwlock_destroy(&stream->lock);
    delete stream;
}

void tq_stream_reset(tq_stream_t *stream)
{
    stream_counters_t &state = stream->state;
    for (std::atomic<uint32_t> *counter :
         {&state.assembled, &state.total, &state.discarded, &state.overflowed, &state.rdy_cnt, &state.rdy_max,
          &state.discard_bytes})
        counter->store(0, std::memory_order_relaxed);
    stream->hdr = tq_stream_hdr_t{};
    stream->hdr.stream_idx = 0xFFFF;
    stream->hdr_got = 0;
    stream->pkt_done = 0;
    fr_list_free(stream->asm_head);
    stream->asm_head = nullptr;
    stream->prev_sidx = STREAM_IDX_UNKNOWN;
    stream->prev_fidx = STREAM_IDX_UNKNOWN;
    stream->need_bound = 1;
    LOG_TRACE("[%s] stream reset\n");
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    state.start_sec.store(now.tv_sec, std::memory_order_relaxed);
    state.start_usec.store(now.tv_usec, std::memory_order_relaxed);
}

void tq_stream_set_cfg(tq_stream_t *stream, const tq_stream_cfg_t *cfg)
{
    stream->rdy_limit.store(cfg->rdy_limit, std::memory_order_relaxed);
}

tq_stream_cfg_t *tq_stream_get_cfg(tq_stream_t *stream, tq_stream_cfg_t *cfg)
{
    cfg->rdy_limit = stream->rdy_limit.load(std::memory_order_relaxed);
    return cfg;
}

bool tq_stream_feed_input(tq_stream_t *stream, const void *bytes, int32_t len)
{
    input_t in = {static_cast<const uint8_t *>(bytes), len > 0 ? static_cast<uint32_t>(len) : 0, 0};
    LOG_TRACE("[%s]---- raw bytes: %u -----\n", in.len);
    while (in.left() > 0) {
        const uint32_t from = in.pos;
        if (stream->hdr_got == HDR_LEN && !stream->need_bound && !stream->pkt_done) {
            _take_payload(stream, &in);
            continue;
        }
        if (stream->hdr_got == HDR_LEN) {
            _note_packet(stream);
            _sync_stream_hdr(stream, &in);
        } else if (stream->hdr_got == 0 || stream->pkt_done || !_continue_hdr(stream, &in)) {
            stream->prev_sidx = STREAM_IDX_UNKNOWN;
            stream->prev_fidx = STREAM_IDX_UNKNOWN;
            stream->fidx_step = 1;
            _sync_stream_hdr(stream, &in);
        }
        _after_hunt(stream, &in, from);
    }
    return stream->state.rdy_cnt.load(std::memory_order_relaxed) != 0;
}
