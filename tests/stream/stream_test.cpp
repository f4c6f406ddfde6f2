#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <sys/resource.h>
#include <thread>

#include "packets.h"
#include "support/log_capture.h"
#include "tq_log.h"

namespace {
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
            const packet_t p = {sidx++,  fidx,   len, bytes_t(all.begin() + at, all.begin() + end),
                                at == 0, flags1, 6};
            append(&out, packet_bytes(p));
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
    tq_log_cfg(nullptr, TQ_LOG_FILE, TQ_LOG_DEBUG, 0);
    for (uint32_t seed = 1; seed <= 60; seed++) {
        std::mt19937 random(seed);
        std::vector<got_frame_t> expected;
        const bytes_t all = random_stream(random, &expected);
        const uint32_t longest = 1u << (1 + random() % 12); // pieces from single bytes to most of it
        tq_stream_reset(s.get());
        for (size_t at = 0; at < all.size();) {
            const size_t n = std::min<size_t>(1 + random() % longest, all.size() - at);
            const bytes_t piece(all.begin() + at,
                                all.begin() + at + n); // of its own, for the address sanitizer
            feed(piece);
            at += n;
        }
        EXPECT_EQ(state().discarded, 0u) << "seed " << seed;
        EXPECT_EQ(state().total, expected.size()) << "seed " << seed;
        ASSERT_TRUE(fetch_all(s.get()) == expected) << "seed " << seed;
    }
    EXPECT_FALSE(log.has("discard"));
}

TEST_F(Stream, WhatIsNoHeaderIsDropped)
{
    feed(bytes_t{1, 2, 0xFB}); // held as a possible start
    feed(frame(0, 7));         // doesn't go on with it: hunted from its beginning
    feed(bytes_t{0xFB, 0x98, 1});
    feed(bytes_t(40, 0x11)); // makes 36 bytes of it, which prove to be none
    feed(frame(1, 8));
    EXPECT_EQ(fetched(), (indexes_t{7, 8}));
    const uint32_t cases[][3] = {// length, that of the frame, whether they can be
                                 {0, 40, 0},
                                 {40, 0, 0},
                                 {0xA00000, 40, 0},
                                 {40, 0x8000000, 0},
                                 {0xFFFFFFFF, 0xFFFFFFFF, 0},
                                 {0x9FFFFF, 0x7FFFFFF, 1}};
    for (const auto &[len, frame_len, good] : cases) {
        tq_stream_hdr_t hdr = packet_hdr(frame(2, 9));
        hdr.len = len;
        hdr.frame.frame_len = frame_len;
        hdr.hdr_hash = tq_stream_hash16(&hdr, 34, 0);
        log.clear();
        tq_stream_feed_input(s.get(), reinterpret_cast<const uint8_t *>(&hdr), sizeof hdr);
        EXPECT_EQ(log.has("[_sync_stream_hdr]HDR found: idx/len=2/10485759 (frlen=134217727,idx=9,"), good);
    }
}

TEST_F(Stream, Losses)
{
    const struct {
        std::vector<packet_t> packets;
        const char *line;
        indexes_t frames;
        uint32_t discarded, bytes;
    } cases[] = {
        // A frame begins while another lacks its end.
        {{part(0, 1, 0, 60), part(2, 2, 0, 60), part(3, 2, 60, 100)},
         "[tq_stream_feed_input]discard frame: frame bound met, prev not complete\n",
         {2},
         1,
         60},
        // The end of another frame: discarded, yet the packet's payload is taken and begins a frame.
        {{part(0, 1, 0, 60), part(1, 9, 60, 100)},
         "[tq_stream_feed_input]discard frame: frame idx not consist (prev=1, cur=9)\n",
         {},
         1,
         60},
        // A packet is missing within a frame: nothing until the next bound.
        {{part(0, 1, 0, 30), part(2, 1, 60, 90), part(3, 1, 90, 100), frame(4, 2)},
         "[tq_stream_feed_input]discard frame: stream hdr idx not correct (prev=0, cur=2)\n",
         {2},
         1,
         30},
        // The end of a frame comes first.
        {{part(0, 1, 50, 100), frame(1, 2)},
         "[tq_stream_feed_input]HDR skip: no fr-bound @ 36/162 \n",
         {2},
         0,
         0},
        // Packets are missing before a frame: only told.
        {{frame(0, 1), frame(7, 5)},
         "[tq_stream_feed_input]missing frame: jumpping frame idx (prev=2, cur=5)\n",
         {1, 5},
         0,
         0},
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
        EXPECT_GE(state().discard_bytes, c.bytes) << c.line;
        EXPECT_EQ(state().overflowed, 0u);
    }
}

TEST_F(Stream, ChecksumDropsTheFrameInAssembly)
{
    const auto summed = [](packet_t p, uint32_t off) {
        p.flags1 = TQ_STREAM_CKSUM;
        for (size_t i = 0; i + 4 <= p.payload.size(); i += 4) {
            uint32_t word;
            std::memcpy(&word, p.payload.data() + i, 4);
            p.aux += word;
        }
        p.aux += off;
        return p;
    };
    feed(summed(frame(0, 1), 0));
    feed(summed(part(1, 2, 0, 60), 0));
    feed(summed(part(2, 2, 60, 100), 1));
    EXPECT_TRUE(log.has("[tq_stream_feed_input]discard frame: verify data checksum failed: sidx=2\n"));
    EXPECT_EQ(state().discarded, 1u);
    feed(part(3, 3, 50, 100));
    feed(summed(frame(4, 4, 39), 0)); // the last three bytes aren't summed
    const std::vector<got_frame_t> frames = fetch_all(s.get());
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].aux, 0u); // a checksum doesn't travel with the frame
    EXPECT_EQ(frames[1].idx, 4);
}

TEST_F(Stream, FullListDropsTheOldest)
{
    EXPECT_FALSE(tq_stream_feed_input(s.get(), nullptr, 0));
    for (uint16_t i = 0; i < 25; i++) {
        feed(frame(i, i));
        EXPECT_LE(state().rdy_cnt, 10u);
    }
    EXPECT_TRUE(tq_stream_feed_input(s.get(), nullptr, 0));
    EXPECT_EQ(state().overflowed, 15u);
    EXPECT_EQ(state().discarded, 0u);
    EXPECT_EQ(state().discard_bytes, 15u * 40);
    EXPECT_EQ(state().rdy_max, 11u); // seen before the drop
    EXPECT_TRUE(log.has("[tq_stream_feed_input]discard frames: frame buffer is full (1/15)\n"));
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
    uint8_t room[100];
    tq_frame_hdr_t hdr = {};
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), nullptr, 0, 99, &hdr, true), 5u);
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), room, 40, 1, &hdr, true), 1u);
    EXPECT_EQ(hdr.frame_idx, 1);
    EXPECT_EQ(state().rdy_cnt, 5u);
    std::memset(room, 0xEE, sizeof room);
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), room, 50, 3, &hdr, false), 3u); // one and a quarter fit
    EXPECT_EQ(hdr.frame_idx, 1);
    bytes_t expected = frame_bytes(40, 1);
    append(&expected, frame_bytes(40, 2));
    expected.resize(50);
    expected.resize(100, 0xEE);
    EXPECT_EQ(bytes_t(room, room + 100), expected);
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), nullptr, 0, 1, nullptr, false), 1u);
    EXPECT_EQ(fetched(), (indexes_t{5}));

    // A reset forgets the count, but not the list.
    tq_stream_reset(s.get());
    feed(frame(0, 1));
    feed(part(1, 2, 0, 60));
    tq_stream_reset(s.get());
    EXPECT_EQ(state().rdy_cnt, 0u);
    EXPECT_EQ(tq_stream_fetch_frames(s.get(), nullptr, 0, 9, nullptr, false), 0u);
    feed(part(2, 2, 60, 100)); // what was being assembled is gone
    feed(frame(3, 3));
    EXPECT_EQ(fetched(), (indexes_t{1})); // one counted, the oldest on the list
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(Stream, NoMemoryForAFrameLosesThatFrameOnly)
{
    const packet_t big = {1, 2, 120000000, frame_bytes(5000, 1)};
    struct rlimit old, tight;
    getrlimit(RLIMIT_AS, &old);
    tight = old;
    tight.rlim_cur = 100000000;
    setrlimit(RLIMIT_AS, &tight);
    feed(big);
    setrlimit(RLIMIT_AS, &old);
    EXPECT_TRUE(log.has("[_fr_node_add_data]malloc failed: "));
    EXPECT_EQ(state().discard_bytes, 5000u);
    feed(frame(2, 3));
    EXPECT_EQ(fetched(), (indexes_t{3}));
}
#endif

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
        EXPECT_LE(state().discarded, 0u);
    }
    feeder.join();
    EXPECT_EQ(taken + state().overflowed, FRAMES);
    EXPECT_GT(taken, 0u);
}
