#include <gtest/gtest.h>
#include <memory>
#include <thread>

#include "stream/checksum.h"
#include "support/kernel_check.h"
#include "support/log_capture.h"
#include "tq_log.h"
#include "tq_stream.h"

namespace {
using bytes_t = std::vector<uint8_t>;
using indexes_t = std::vector<uint16_t>;
using got_frame_t = std::tuple<uint16_t, uint32_t, bytes_t>; // index, aux

void append(bytes_t *out, const bytes_t &more)
{
    out->insert(out->end(), more.begin(), more.end());
}

// A packet as a camera sends it.
bytes_t packet(uint16_t sidx, uint16_t fidx, uint32_t frame_len, const bytes_t &payload, bool bound = true,
               uint8_t flags1 = 0, uint32_t aux = 0, uint32_t len = 0)
{
    tq_stream_hdr_t hdr = {
        TQ_STREAM_MAGIC, sidx, len ? len : static_cast<uint32_t>(payload.size()), {}, bound, flags1, 0};
    hdr.frame.frame_len = frame_len;
    hdr.frame.frame_idx = fidx;
    hdr.frame.aux = aux;
    hdr.hdr_hash = tq_stream_hash16(&hdr, 34, 0);
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(&hdr);
    bytes_t out(bytes, bytes + sizeof hdr);
    append(&out, payload);
    return out;
}

// A frame's bytes, told by its seed. They hold a whole header, which must not be taken for one.
bytes_t frame_bytes(uint32_t len, uint32_t seed)
{
    static const bytes_t hdr = packet(0, 0, 50, {}, true, 0, 0, 50);
    std::minstd_rand rng(seed);
    bytes_t out(len);
    for (uint8_t &b : out)
        b = static_cast<uint8_t>(rng());
    if (len >= 100)
        std::copy(hdr.begin(), hdr.end(), out.begin() + seed % 50);
    return out;
}

// A whole frame's packet, and one part of a frame of 100 bytes.
bytes_t frame(uint16_t sidx, uint16_t fidx, uint32_t len = 40)
{
    return packet(sidx, fidx, len, frame_bytes(len, fidx));
}
bytes_t part(uint16_t sidx, uint16_t fidx, uint32_t from, uint32_t to, uint8_t flags1 = 0)
{
    const bytes_t all = frame_bytes(100, fidx);
    return packet(sidx, fidx, 100, bytes_t(all.begin() + from, all.begin() + to), from == 0, flags1);
}

struct Stream : ::testing::Test {
    void feed(const bytes_t &b) { tq_stream_feed_input(s.get(), b.data(), static_cast<int32_t>(b.size())); }
    tq_stream_state_t state() { return *tq_stream_get_state(s.get(), &last_state); }
    std::vector<got_frame_t> fetch_all()
    {
        std::vector<got_frame_t> out;
        bytes_t room(1000);
        tq_frame_hdr_t hdr;
        while (tq_stream_fetch_frames(s.get(), room.data(), 1000, 1, &hdr, false) == 1)
            out.push_back({hdr.frame_idx, hdr.aux, bytes_t(room.begin(), room.begin() + hdr.frame_len)});
        return out;
    }
    indexes_t fetched()
    {
        indexes_t out;
        for (const auto &[idx, aux, bytes] : fetch_all())
            out.push_back(idx);
        return out;
    }

    tq_stream_cfg_t cfg{10};
    std::unique_ptr<tq_stream_t, void (*)(tq_stream_t *)> s{tq_stream_create(&cfg), tq_stream_destroy};
    tq_stream_state_t last_state;
    LogCapture log;
};

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
            const bytes_t part(all.begin() + at, all.begin() + std::min<size_t>(at + cut, all.size()));
            append(&out, packet(sidx++, fidx, len, part, at == 0, flags1, 6));
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
        ASSERT_TRUE(fetch_all() == expected) << "seed " << seed;
    }
}

TEST_F(Stream, WhatIsNoHeaderIsDropped)
{
    feed(bytes_t{1, 2, 0xFB}); // held as a possible start
    feed(frame(0, 7));         // doesn't go on with it: hunted from its beginning
    feed(bytes_t{0xFB, 0x98, 1});
    feed(bytes_t(40, 0x11)); // makes 36 bytes of it, which prove to be none
    for (const auto &[len, frame_len] : {std::pair{0u, 40u}, {40, 0}, {0xA00000, 40}, {40, 0x8000000}})
        feed(packet(1, 9, frame_len, {}, true, 0, 0, len)); // sizes that can't be
    feed(frame(1, 8));
    EXPECT_EQ(fetched(), (indexes_t{7, 8}));
}

TEST_F(Stream, Losses)
{
    const struct {
        std::vector<bytes_t> packets;
        const char *line;
        indexes_t frames;
    } cases[] = {
        {{part(0, 1, 0, 60), part(2, 2, 0, 60), part(3, 2, 60, 100)}, "bound met, prev not complete", {2}},
        // The packet's payload is taken and begins a frame.
        {{part(0, 1, 0, 60), part(1, 9, 60, 100)}, "frame idx not consist (prev=1, cur=9)", {}},
        // A packet is missing within a frame: nothing until the next bound.
        {{part(0, 1, 0, 30), part(2, 1, 60, 100), frame(3, 2)}, "idx not correct (prev=0, cur=2)", {2}},
        {{part(0, 1, 50, 100), frame(1, 2)}, "HDR skip: no fr-bound @ 36/162", {2}},
        // Packets are missing before a frame: only told.
        {{frame(0, 1), frame(7, 5)}, "missing frame: jumpping frame idx (prev=2, cur=5)", {1, 5}},
        {{part(1, 2, 0, 100, TQ_STREAM_CKSUM), frame(3, 4)}, "verify data checksum failed: sidx=1", {4}},
    };
    for (const auto &c : cases) {
        tq_stream_reset(s.get());
        bytes_t all;
        for (const bytes_t &p : c.packets)
            append(&all, p);
        feed(all);
        EXPECT_TRUE(log.has(c.line)) << c.line;
        EXPECT_EQ(fetched(), c.frames) << c.line;
    }
}

TEST_F(Stream, ReadyList)
{
    for (uint16_t i = 0; i < 25; i++) // the newest ten stay
        feed(frame(i, i));
    EXPECT_EQ(state().overflowed, 15u);
    bytes_t room(100, 0xEE), due = frame_bytes(40, 15);
    tq_frame_hdr_t hdr = {};
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), nullptr, 0, 99, &hdr, true), 10u);
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), room.data(), 50, 3, &hdr, false), 3u); // one and a quarter fit
    append(&due, frame_bytes(40, 16));
    due.resize(50);
    due.resize(100, 0xEE);
    EXPECT_EQ(room, due);
    feed(packet(25, 25, 10, frame_bytes(120, 1))); // twelve frames at once
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), nullptr, 0, 8, nullptr, false), 8u);
    // A reset forgets the count and what was being assembled, but not the list.
    feed(part(26, 37, 0, 60));
    tq_stream_reset(s.get());
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), nullptr, 0, 9, nullptr, false), 0u);
    feed(part(27, 37, 60, 100));
    feed(frame(28, 38));
    EXPECT_EQ(fetched(), (indexes_t{35})); // one counted, the oldest on the list
}

TEST_F(Stream, FeedingAndFetchingThreads)
{
    tq_log_cfg(nullptr, TQ_LOG_FILE, TQ_LOG_SILENT, 0);
    constexpr uint32_t FRAMES = 4000, LEN = 2000;
    std::atomic<bool> done{false};
    std::thread feeder([&] {
        for (uint32_t i = 0; i < FRAMES; i++) {
            const bytes_t b = frame(static_cast<uint16_t>(i), static_cast<uint16_t>(i), LEN);
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

TEST(Checksum, AgreesWithTheRuleByteByByte)
{
    EXPECT_EQ(tq_stream_hash16("abcde", 5, 0), 0xC8F0);
    KernelRng rng;
    for (const size_t len : {1u, 34u, 128u, 319u, 5799u, 5800u, 5801u, 8191u, 8192u, 16447u, 100000u}) {
        std::vector<uint8_t> data(len);
        uint32_t a = 0xFF, b = 0xFF; // seeds that aren't remainders
        for (size_t i = 0; i < len; i++) {
            data[i] = i < 6000 ? 0xFF : static_cast<uint8_t>(rng.bits());
            a = (a + data[i]) % 255;
            b = (b + a) % 255;
        }
        const uint32_t words = stream_sum32_plain(data.data() + 1, len - 1);
        for_each_target([&] {
            EXPECT_EQ(stream_hash16_simd(data.data(), len, 0xFFFF), a | (b << 8)) << len;
            EXPECT_EQ(stream_sum32_simd(data.data() + 1, len - 1), words) << len;
        });
        EXPECT_EQ(stream_hash16_plain(data.data(), len, 0xFFFF), a | (b << 8)) << len;
    }
}

TEST(Ostream, MakesHeaders)
{
    const uint8_t data[7] = {1, 0, 0, 0x80, 9, 9, 9}; // of the checksum the last three are no part
    const struct {
        uint16_t fidx;
        int32_t len, meta;
        bool cksum, bound;
        uint8_t flags1;
        uint32_t aux;
    } calls[] = {
        {0xFFFF, 600, 0, false, true, 0, 77},  // first after a reset, whatever the index
        {0xFFFF, 400, 0, false, false, 0, 77}, // the rest of it
        {0xFFFF, 1000, 0, false, true, 0, 77}, // the index repeats on a new frame
        {0, 3000, 0, false, true, 0, 77},      // three frames
        {3, 0, 0, false, true, 0, 77},
        {3, 7, 0, true, false, TQ_STREAM_CKSUM, 0x80000001u},
        {4, 7, 8, true, true, TQ_STREAM_META, 8}, // has no room for a checksum
    };
    std::unique_ptr<tq_ostream_t, void (*)(tq_ostream_t *)> os{tq_ostream_create(), tq_ostream_destroy};
    uint16_t sidx = 0;
    for (const auto &c : calls) {
        const tq_ostream_cfg_t cfg = {c.cksum};
        tq_ostream_set_cfg(os.get(), &cfg);
        tq_frame_hdr_t frame = {1000, c.fidx, 2, 320, 240, -5, 301, 0x1234, 77};
        tq_stream_hdr_t hdr = {};
        // The frame header may lie within the header that is made.
        tq_frame_hdr_t *place = sidx % 2 ? &hdr.frame : &frame;
        *place = frame;
        EXPECT_EQ(tq_ostream_mkhdr(os.get(), &hdr, place, c.cksum ? data : nullptr, c.len, c.meta), c.len);
        frame.aux = c.aux;
        tq_stream_hdr_t due = {TQ_STREAM_MAGIC, sidx++, static_cast<uint32_t>(c.len), frame, c.bound,
                               c.flags1,        0};
        due.hdr_hash = tq_stream_hash16(&due, 34, 0);
        EXPECT_EQ(std::memcmp(&hdr, &due, sizeof hdr), 0) << sidx;
    }
}
