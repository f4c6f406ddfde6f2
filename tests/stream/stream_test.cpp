#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <thread>

#include "support/log_capture.h"
#include "tq_log.h"
#include "tq_stream.h"

namespace {
using bytes_t = std::vector<uint8_t>;

void append(bytes_t *out, const bytes_t &more)
{
    out->insert(out->end(), more.begin(), more.end());
}

struct packet_t {
    uint16_t sidx, fidx;
    uint32_t frame_len;
    bytes_t payload;
    bool bound = true;
    uint8_t flags1 = 0;
    uint32_t aux = 0;
};

// Its header, which may tell other lengths than those of the packet.
bytes_t header(const packet_t &p, uint32_t len, uint32_t frame_len)
{
    tq_stream_hdr_t hdr = {};
    hdr.magic = TQ_STREAM_MAGIC;
    hdr.stream_idx = p.sidx;
    hdr.len = len;
    hdr.frame.frame_len = frame_len;
    hdr.frame.frame_idx = p.fidx;
    hdr.frame.aux = p.aux;
    hdr.flags0 = p.bound ? TQ_STREAM_BOUND : 0;
    hdr.flags1 = p.flags1;
    hdr.hdr_hash = tq_stream_hash16(&hdr, 34, 0);
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(&hdr);
    return bytes_t(bytes, bytes + sizeof hdr);
}

bytes_t packet_bytes(const packet_t &p)
{
    bytes_t out = header(p, static_cast<uint32_t>(p.payload.size()), p.frame_len);
    append(&out, p.payload);
    return out;
}

// A frame's bytes, told by its seed. They hold whole headers, which must not be taken for any.
bytes_t frame_bytes(uint32_t len, uint32_t seed)
{
    bytes_t out(len);
    uint32_t x = seed * 2654435761u + 1;
    for (uint8_t &b : out) {
        x = x * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(x >> 24);
    }
    static const bytes_t hdr = header({0, 0, 50, {}}, 50, 50);
    if (len >= 100)
        std::copy(hdr.begin(), hdr.end(), out.begin() + seed % 50);
    return out;
}

struct got_frame_t {
    uint16_t idx;
    uint32_t aux;
    bytes_t bytes;
    bool operator==(const got_frame_t &o) const { return idx == o.idx && aux == o.aux && bytes == o.bytes; }
};

std::vector<got_frame_t> fetch_all(tq_stream_t *stream)
{
    std::vector<got_frame_t> out;
    bytes_t room(1 << 16);
    tq_frame_hdr_t hdr;
    while (tq_stream_fetch_frames(stream, room.data(), static_cast<uint32_t>(room.size()), 1, &hdr, false) ==
           1)
        out.push_back({hdr.frame_idx, hdr.aux, bytes_t(room.begin(), room.begin() + hdr.frame_len)});
    return out;
}

struct Stream : ::testing::Test {
    void feed(const bytes_t &b) { tq_stream_feed_input(s.get(), b.data(), static_cast<int32_t>(b.size())); }
    void feed(const packet_t &p) { feed(packet_bytes(p)); }
    tq_stream_state_t state()
    {
        tq_stream_state_t st;
        return *tq_stream_get_state(s.get(), &st);
    }
    std::vector<uint16_t> fetched()
    {
        std::vector<uint16_t> out;
        for (const got_frame_t &f : fetch_all(s.get()))
            out.push_back(f.idx);
        return out;
    }

    tq_stream_cfg_t cfg{10};
    std::unique_ptr<tq_stream_t, void (*)(tq_stream_t *)> s{tq_stream_create(&cfg), tq_stream_destroy};
    LogCapture log;
};

using indexes_t = std::vector<uint16_t>;

// A whole frame's packet.
packet_t frame(uint16_t sidx, uint16_t fidx, uint32_t len = 40)
{
    return {sidx, fidx, len, frame_bytes(len, fidx)};
}

// One part of a frame of 100 bytes.
packet_t part(uint16_t sidx, uint16_t fidx, uint32_t from, uint32_t to)
{
    const bytes_t all = frame_bytes(100, fidx);
    return {sidx, fidx, 100, bytes_t(all.begin() + from, all.begin() + to), from == 0};
}

// A long stream: frames in one packet, in many, several to a packet, ending and beginning within one, with
// meta data, with junk between packets.
bytes_t random_stream(std::mt19937 &random, std::vector<got_frame_t> *frames)
{
    const auto pick = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    bytes_t out;
    uint16_t sidx = static_cast<uint16_t>(65530 + pick(6)), fidx = static_cast<uint16_t>(65500 + pick(36));
    for (int i = 0; i < 40; i++) {
        const uint32_t len = 1 + pick(300), count = pick(3) ? 1 : 1 + pick(6);
        const uint8_t flags1 = pick(4) ? 0 : TQ_STREAM_META;
        bytes_t all;
        for (uint32_t f = 0; f < count; f++) {
            const bytes_t one = frame_bytes(len, random());
            frames->push_back({static_cast<uint16_t>(fidx + f), flags1 ? 6u : 0u, one});
            append(&all, one);
        }
        // Frames of several packets keep their index; so do frames that begin behind the end of another.
        const uint32_t cut = count == 1 ? 1 + pick(len) : len * (count - 1) + 1 + pick(len);
        for (uint32_t at = 0; at < all.size(); at += cut) {
            const uint32_t end = std::min<uint32_t>(at + cut, static_cast<uint32_t>(all.size()));
            const bytes_t part(all.begin() + at, all.begin() + end);
            append(&out, packet_bytes({sidx++, fidx, len, part, at == 0, flags1, 6}));
        }
        fidx = static_cast<uint16_t>(fidx + count);
        if (pick(4) == 0)
            out.insert(out.end(), pick(100), 0x98);
    }
    return out;
}
} // namespace

TEST_F(Stream, AnyCuttingOfAnIntactStreamGivesTheSameFrames)
{
    cfg.rdy_limit = 100000;
    tq_stream_set_cfg(s.get(), &cfg);
    for (uint32_t seed = 1; seed <= 60; seed++) {
        std::mt19937 random(seed);
        std::vector<got_frame_t> expected;
        const bytes_t all = random_stream(random, &expected);
        const uint32_t longest = 1u << (1 + random() % 12); // pieces from single bytes to most of it
        tq_stream_reset(s.get());
        for (size_t at = 0; at < all.size();) {
            const size_t n = std::min<size_t>(1 + random() % longest, all.size() - at);
            feed(bytes_t(all.begin() + at, all.begin() + at + n)); // of its own, for the address sanitizer
            at += n;
        }
        EXPECT_EQ(state().discarded, 0u) << "seed " << seed;
        ASSERT_TRUE(fetch_all(s.get()) == expected) << "seed " << seed;
    }
}

TEST_F(Stream, WhatIsNoHeaderIsDropped)
{
    feed(bytes_t{1, 2, 0xFB}); // held as a possible start
    feed(frame(0, 7));         // doesn't go on with it: hunted from its beginning
    feed(bytes_t{0xFB, 0x98, 1});
    feed(bytes_t(40, 0x11)); // makes 36 bytes of it, which prove to be none
    for (const auto &[len, frame_len] :
         {std::pair{0u, 40u}, {40, 0}, {0xA00000, 40}, {40, 0x8000000}, {~0u, ~0u}})
        feed(header(frame(1, 9), len, frame_len)); // sizes that can't be
    feed(frame(1, 8));
    EXPECT_EQ(fetched(), (indexes_t{7, 8}));
}

TEST_F(Stream, Losses)
{
    packet_t summed = part(2, 2, 60, 100); // by 10 words, of which the sum is not 0
    summed.flags1 = TQ_STREAM_CKSUM;
    const struct {
        std::vector<packet_t> packets;
        const char *line;
        indexes_t frames;
        uint32_t discarded;
    } cases[] = {
        {{part(0, 1, 0, 60), part(2, 2, 0, 60), part(3, 2, 60, 100)},
         "frame bound met, prev not complete",
         {2},
         1},
        // The packet's payload is taken and begins a frame.
        {{part(0, 1, 0, 60), part(1, 9, 60, 100)}, "frame idx not consist (prev=1, cur=9)", {}, 1},
        // A packet is missing within a frame: nothing until the next bound.
        {{part(0, 1, 0, 30), part(2, 1, 60, 90), part(3, 1, 90, 100), frame(4, 2)},
         "stream hdr idx not correct (prev=0, cur=2)",
         {2},
         1},
        {{part(0, 1, 50, 100), frame(1, 2)}, "HDR skip: no fr-bound @ 36/162", {2}, 0},
        // Packets are missing before a frame: only told.
        {{frame(0, 1), frame(7, 5)}, "missing frame: jumpping frame idx (prev=2, cur=5)", {1, 5}, 0},
        {{part(1, 2, 0, 60), summed, frame(3, 4)}, "verify data checksum failed: sidx=2", {4}, 1},
    };
    for (const auto &c : cases) {
        tq_stream_reset(s.get());
        log.clear();
        bytes_t all;
        for (const packet_t &p : c.packets)
            append(&all, packet_bytes(p));
        feed(all);
        EXPECT_TRUE(log.has(c.line)) << c.line;
        EXPECT_EQ(fetched(), c.frames) << c.line;
        EXPECT_EQ(state().discarded, c.discarded) << c.line;
    }
}

TEST_F(Stream, FullListDropsTheOldest)
{
    for (uint16_t i = 0; i < 25; i++)
        feed(frame(i, i));
    EXPECT_EQ(state().overflowed, 15u);
    EXPECT_EQ(state().discard_bytes, 15u * 40);
    feed({25, 25, 10, frame_bytes(120, 1)}); // twelve frames at once, into a list of ten
    EXPECT_EQ(fetched(), (indexes_t{27, 28, 29, 30, 31, 32, 33, 34, 35, 36}));
    cfg.rdy_limit = 0;
    tq_stream_set_cfg(s.get(), &cfg);
    feed(frame(26, 37));
    EXPECT_EQ(state().rdy_cnt, 0u);
}

TEST_F(Stream, FetchPeeksCutsAndThrowsAway)
{
    for (uint16_t i = 1; i <= 5; i++)
        feed(frame(i, i));
    bytes_t room(100, 0xEE), due = frame_bytes(40, 1);
    tq_frame_hdr_t hdr = {};
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), nullptr, 0, 99, &hdr, true), 5u);
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), room.data(), 50, 3, &hdr, false), 3u); // one and a quarter fit
    EXPECT_EQ(hdr.frame_idx, 1);
    append(&due, frame_bytes(40, 2));
    due.resize(50);
    due.resize(100, 0xEE);
    EXPECT_EQ(room, due);
    // A reset forgets the count and what was being assembled, but not the list.
    feed(part(6, 6, 0, 60));
    tq_stream_reset(s.get());
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), nullptr, 0, 9, nullptr, false), 0u);
    feed(part(7, 6, 60, 100));
    feed(frame(8, 7));
    EXPECT_EQ(fetched(), (indexes_t{4})); // one counted, the oldest on the list
}

TEST_F(Stream, FeedingAndFetchingThreads)
{
    tq_log_cfg(nullptr, TQ_LOG_FILE, TQ_LOG_SILENT, 0);
    constexpr uint32_t FRAMES = 4000, LEN = 2000;
    std::atomic<bool> done{false};
    std::thread feeder([&] {
        for (uint32_t i = 0; i < FRAMES; i++) {
            const bytes_t b = packet_bytes(frame(static_cast<uint16_t>(i), static_cast<uint16_t>(i), LEN));
            feed(bytes_t(b.begin(), b.begin() + 700));
            feed(bytes_t(b.begin() + 700, b.end()));
        }
        done = true;
    });
    uint32_t taken = 0;
    int last = -1;
    bytes_t room(LEN);
    for (;;) {
        const bool ended = done;
        tq_frame_hdr_t hdr = {};
        tq_stream_fetch_frames(s.get(), room.data(), LEN, 3, &hdr, true);
        if (tq_stream_fetch_frames(s.get(), room.data(), LEN, 1, &hdr, false) == 1) {
            taken++;
            EXPECT_GT(hdr.frame_idx, last);
            last = hdr.frame_idx;
            ASSERT_EQ(room, frame_bytes(LEN, hdr.frame_idx));
        } else if (ended) {
            break;
        }
        EXPECT_EQ(state().discarded, 0u);
    }
    feeder.join();
    EXPECT_EQ(taken + state().overflowed, FRAMES);
}
