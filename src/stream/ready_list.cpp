// The ready list: whole frames handed over by the feeding thread, bounded, and fetched by another.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "log/log.h"
#include "stream/stream.h"

namespace {
class rdy_guard_t {
  public:
    rdy_guard_t(tq_stream_t *stream, bool write) : lock_(&stream->lock)
    {
        if (write)
            pthread_rwlock_wrlock(lock_);
        else
            pthread_rwlock_rdlock(lock_);
    }
    ~rdy_guard_t() { pthread_rwlock_unlock(lock_); }
    rdy_guard_t(const rdy_guard_t &) = delete;
    rdy_guard_t &operator=(const rdy_guard_t &) = delete;

  private:
    pthread_rwlock_t *lock_;
};

// Takes up to count of the oldest frames off the ready list and tells how many. Called with the lock held for
// writing. Frames that a reset left on the list uncounted must not take rdy_cnt below 0.
tq_fr_node_t *_take_oldest(tq_stream_t *stream, uint32_t *count)
{
    tq_fr_node_t *first = stream->rdy_head, *last = first;
    *count = std::min(*count, stream->state.rdy_cnt.load(std::memory_order_relaxed));
    if (first == nullptr || *count == 0) {
        *count = 0;
        return nullptr;
    }
    uint32_t n = 1;
    for (; n < *count && last->next != nullptr; n++)
        last = last->next;
    stream->rdy_head = last->next;
    if (last->next != nullptr)
        last->next->prev = first->prev;
    first->prev = last;
    last->next = nullptr;
    stream->state.rdy_cnt.fetch_sub(n, std::memory_order_relaxed);
    *count = n;
    return first;
}

// Copies the bytes of up to count frames behind each other, as far as there is room. Returns the frames seen.
uint32_t _copy_out(tq_fr_node_t *node, uint32_t count, uint8_t *dst, uint32_t room, tq_frame_hdr_t *hdr_out)
{
    if (node != nullptr && count > 0 && hdr_out != nullptr)
        *hdr_out = node->hdr;
    uint32_t n = 0;
    for (; node != nullptr && n < count; node = node->next, n++) {
        const uint32_t fits = dst != nullptr ? std::min(room, node->used) : 0;
        if (fits > 0) {
            std::memcpy(dst, fr_node_bytes(node), fits);
            dst += fits;
            room -= fits;
        }
    }
    return n;
}
} // namespace

void fr_list_free(tq_fr_node_t *head)
{
    while (head != nullptr) {
        tq_fr_node_t *next = head->next;
        std::free(head);
        head = next;
    }
}

void _fr_list_refresh(tq_stream_t *stream)
{
    tq_fr_node_t *head = stream->asm_head;
    if (head == nullptr)
        return;
    uint32_t n = 0;
    for (const tq_fr_node_t *node = head; node != nullptr; node = node->next)
        n++;
    stream->asm_head = nullptr;
    {
        rdy_guard_t guard(stream, true);
        if (stream->rdy_head == nullptr) {
            stream->rdy_head = head;
        } else {
            tq_fr_node_t *tail = head->prev;
            head->prev = stream->rdy_head->prev;
            head->prev->next = head;
            stream->rdy_head->prev = tail;
        }
        // A packet may have finished one frame and begun the next: only what is whole is handed over.
        tq_fr_node_t *tail = stream->rdy_head->prev;
        if (tail->used < tail->size) {
            fr_list_append(&stream->asm_head, fr_list_take_tail(&stream->rdy_head));
            n--;
        }
        stream->state.total.fetch_add(n, std::memory_order_relaxed);
        stream->state.rdy_cnt.fetch_add(n, std::memory_order_relaxed);
    }
    if (n > 0)
        LOG_TRACE("[%s]assembly %u frames to ready list\n", n);
}

void _fr_list_drop_excess(tq_stream_t *stream)
{
    stream_counters_t &state = stream->state;
    const uint32_t limit = stream->rdy_limit.load(std::memory_order_relaxed);
    if (state.rdy_cnt.load(std::memory_order_relaxed) <= limit)
        return;
    tq_fr_node_t *dropped = nullptr;
    uint32_t over = 0;
    {
        rdy_guard_t guard(stream, true);
        const uint32_t now = state.rdy_cnt.load(std::memory_order_relaxed);
        over = now > limit ? now - limit : 0;
        dropped = _take_oldest(stream, &over);
    }
    if (dropped == nullptr)
        return; // fetched meanwhile
    const uint32_t before = state.overflowed.fetch_add(over, std::memory_order_relaxed);
    LOG_AS(1, "DBG", "tq_stream_feed_input", "[%s]discard frames: frame buffer is full (%d/%d)\n",
           static_cast<int>(over), static_cast<int>(before + over));
    for (const tq_fr_node_t *node = dropped; node != nullptr; node = node->next) {
        state.discard_bytes.fetch_add(node->hdr.frame_len, std::memory_order_relaxed);
        LOG_AS(1, "DBG", "_fr_list_refresh", "[%s]discard frame: idx = %d\n", node->hdr.frame_idx);
    }
    fr_list_free(dropped);
}

uint32_t tq_stream_fetch_frames(tq_stream_t *stream, void *dst, uint32_t dst_len, uint32_t max_frames,
                                tq_frame_hdr_t *hdr_out, bool peek)
{
    uint32_t count = std::min(stream->state.rdy_cnt.load(std::memory_order_relaxed), max_frames);
    if (count == 0 || (peek && dst == nullptr))
        return count;
    uint8_t *out = static_cast<uint8_t *>(dst);
    if (peek) {
        rdy_guard_t guard(stream, false);
        return _copy_out(stream->rdy_head, count, out, dst_len, hdr_out);
    }
    tq_fr_node_t *taken = nullptr;
    {
        rdy_guard_t guard(stream, true);
        taken = _take_oldest(stream, &count);
    }
    // Copied after the lock is released: the feeding thread waits for pointers only.
    _copy_out(taken, count, out, dst_len, hdr_out);
    fr_list_free(taken);
    return count;
}

tq_stream_state_t *tq_stream_get_state(tq_stream_t *stream, tq_stream_state_t *state)
{
    rdy_guard_t guard(stream, false);
    const stream_counters_t &from = stream->state;
    *state = tq_stream_state_t{};
    state->assembled = from.assembled.load(std::memory_order_relaxed);
    state->total = from.total.load(std::memory_order_relaxed);
    state->discarded = from.discarded.load(std::memory_order_relaxed);
    state->overflowed = from.overflowed.load(std::memory_order_relaxed);
    state->rdy_cnt = from.rdy_cnt.load(std::memory_order_relaxed);
    state->rdy_max = from.rdy_max.load(std::memory_order_relaxed);
    state->discard_bytes = from.discard_bytes.load(std::memory_order_relaxed);
    state->start_time.tv_sec = from.start_sec.load(std::memory_order_relaxed);
    state->start_time.tv_usec = from.start_usec.load(std::memory_order_relaxed);
    return state;
}
