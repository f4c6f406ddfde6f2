// Packets as a camera sends them, for the tests of the stream.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "tq_stream.h"

using bytes_t = std::vector<uint8_t>;

inline void append(bytes_t *out, const bytes_t &more)
{
    out->insert(out->end(), more.begin(), more.end());
}

// A frame's bytes, told by its seed. They hold whole headers, which must not be taken for any.
inline bytes_t frame_bytes(uint32_t len, uint32_t seed)
{
    bytes_t out(len);
    uint32_t x = seed * 2654435761u + 1;
    for (uint8_t &b : out) {
        x = x * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(x >> 24);
    }
    if (len >= 100) {
        tq_stream_hdr_t hdr = {};
        hdr.magic = TQ_STREAM_MAGIC;
        hdr.len = 50;
        hdr.frame.frame_len = 50;
        hdr.flags0 = TQ_STREAM_BOUND;
        hdr.hdr_hash = tq_stream_hash16(&hdr, 34, 0);
        std::memcpy(out.data() + seed % 50, &hdr, sizeof hdr);
    }
    return out;
}

struct packet_t {
    uint16_t sidx, fidx;
    uint32_t frame_len;
    bytes_t payload;
    bool bound = true;
    uint8_t flags1 = 0;
    uint32_t aux = 0;
};

inline tq_stream_hdr_t packet_hdr(const packet_t &p)
{
    tq_stream_hdr_t hdr = {};
    hdr.magic = TQ_STREAM_MAGIC;
    hdr.stream_idx = p.sidx;
    hdr.len = static_cast<uint32_t>(p.payload.size());
    hdr.frame.frame_len = p.frame_len;
    hdr.frame.frame_idx = p.fidx;
    hdr.frame.aux = p.aux;
    hdr.flags0 = p.bound ? TQ_STREAM_BOUND : 0;
    hdr.flags1 = p.flags1;
    hdr.hdr_hash = tq_stream_hash16(&hdr, 34, 0);
    return hdr;
}

inline bytes_t packet_bytes(const packet_t &p)
{
    const tq_stream_hdr_t hdr = packet_hdr(p);
    bytes_t out(sizeof hdr);
    std::memcpy(out.data(), &hdr, sizeof hdr);
    append(&out, p.payload);
    return out;
}

struct got_frame_t {
    uint16_t idx;
    uint32_t aux;
    bytes_t bytes;
    bool operator==(const got_frame_t &o) const { return idx == o.idx && aux == o.aux && bytes == o.bytes; }
};

inline std::vector<got_frame_t> fetch_all(tq_stream_t *stream)
{
    std::vector<got_frame_t> out;
    bytes_t room(1 << 16);
    tq_frame_hdr_t hdr;
    while (tq_stream_fetch_frames(stream, room.data(), static_cast<uint32_t>(room.size()), 1, &hdr, false) ==
           1)
        out.push_back({hdr.frame_idx, hdr.aux, bytes_t(room.begin(), room.begin() + hdr.frame_len)});
    return out;
}
