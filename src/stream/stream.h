// The reassembler's state and the lists of frames in it.
#pragma once

#include <atomic>
#include <cstdint>

#include <pthread.h>

#include "tq_stream.h"

// One frame, owned by the list that holds it. Its bytes follow in the same allocation.
struct tq_fr_node_t {
    tq_fr_node_t *next; // nullptr at the tail
    tq_fr_node_t *prev; // the head's is the tail
    tq_frame_hdr_t hdr;
    uint32_t used; // bytes filled
    uint32_t size; // bytes expected; never changes, whatever later headers say
};

inline uint8_t *fr_node_bytes(tq_fr_node_t *node)
{
    return reinterpret_cast<uint8_t *>(node + 1);
}

// Counters have one writer, the feeding thread (rdy_cnt also those that fetch, under the lock), and are read
// from any thread.
struct stream_counters_t {
    std::atomic<uint32_t> assembled, total, discarded, overflowed, rdy_cnt, rdy_max, discard_bytes;
    std::atomic<int64_t> start_sec, start_usec;
};

struct tq_stream_t {
    std::atomic<uint32_t> rdy_limit;
    tq_fr_node_t *rdy_head; // whole frames, oldest first; guarded by lock
    pthread_rwlock_t lock;  // inside the retrieval's rdy_lock, if both; pointer writes and peeks only

    // From here on the feeding thread's alone.
    tq_stream_hdr_t hdr; // current header, also collects a partial one
    uint8_t need_bound;  // resynchronising: nothing is taken until a header with frame bound
    uint8_t pkt_done;    // the current packet's payload is finished
    uint8_t hdr_got;     // bytes of hdr held, 0 to 36
    uint32_t pkt_used;   // payload bytes of the current packet consumed
    uint32_t pkt_cksum;  // running checksum of the current packet
    uint16_t pkt_frames; // frames finished within the current packet
    uint32_t prev_sidx;  // of the last finished packet, STREAM_IDX_UNKNOWN when unknown
    uint32_t prev_fidx;
    uint16_t fidx_step;     // by how much frame_idx is expected to advance
    tq_fr_node_t *asm_head; // frames being assembled; all but the tail are whole

    stream_counters_t state;
};

constexpr uint32_t STREAM_IDX_UNKNOWN = 0xFFFFFFFF;

inline void fr_list_append(tq_fr_node_t **head, tq_fr_node_t *node)
{
    node->next = nullptr;
    if (*head == nullptr) {
        node->prev = node;
        *head = node;
    } else {
        node->prev = (*head)->prev;
        node->prev->next = node;
        (*head)->prev = node;
    }
}

// Takes the tail off a list that isn't empty.
inline tq_fr_node_t *fr_list_take_tail(tq_fr_node_t **head)
{
    tq_fr_node_t *tail = (*head)->prev;
    if (tail == *head) {
        *head = nullptr;
    } else {
        (*head)->prev = tail->prev;
        tail->prev->next = nullptr;
    }
    return tail;
}

void fr_list_free(tq_fr_node_t *head);

// Moves the whole assembling list to the ready list, but for an incomplete tail.
void _fr_list_refresh(tq_stream_t *stream);

// Cuts the ready list to its limit, the oldest frames first.
void _fr_list_drop_excess(tq_stream_t *stream);
