#include <gtest/gtest.h>
#include <memory>

#include "packets.h"
#include "support/log_capture.h"

namespace {
struct Ostream : ::testing::Test {
    tq_stream_hdr_t make(uint16_t fidx, int32_t len, int32_t meta = 0, const void *data = nullptr)
    {
        tq_frame_hdr_t frame = {1000, fidx, 2, 320, 240, -5, 301, 0x1234, 77};
        tq_stream_hdr_t hdr;
        EXPECT_EQ(tq_ostream_mkhdr(os.get(), &hdr, &frame, data, len, meta), len);
        EXPECT_EQ(hdr.magic, TQ_STREAM_MAGIC);
        EXPECT_EQ(hdr.len, static_cast<uint32_t>(len));
        EXPECT_EQ(hdr.hdr_hash, tq_stream_hash16(&hdr, 34, 0));
        frame.aux = hdr.frame.aux;
        EXPECT_EQ(std::memcmp(&frame, &hdr.frame, sizeof frame), 0);
        return hdr;
    }

    std::unique_ptr<tq_ostream_t, void (*)(tq_ostream_t *)> os{tq_ostream_create(), tq_ostream_destroy};
    LogCapture log;
};
} // namespace

TEST_F(Ostream, MarksFrameBoundsAndCountsPackets)
{
    const struct {
        uint16_t fidx;
        int32_t len;
        bool bound, warned;
    } calls[] = {
        {0xFFFF, 600, true, false},  // first after a reset, whatever the index
        {0xFFFF, 400, false, false}, // the rest of it
        {0xFFFF, 1000, true, true},  // the index repeats on a new frame
        {0, 3000, true, false},      // three frames
        {3, 0, true, false},         {3, 1000, false, false}, {4, 1000, true, false},
    };
    uint16_t sidx = 0;
    for (const auto &c : calls) {
        log.clear();
        const tq_stream_hdr_t hdr = make(c.fidx, c.len);
        EXPECT_EQ(hdr.stream_idx, sidx++);
        EXPECT_EQ(hdr.flags0, c.bound ? 1 : 0) << sidx;
        EXPECT_EQ(hdr.flags1, 0);
        EXPECT_EQ(hdr.frame.aux, 77u); // as the caller gave it
        EXPECT_EQ(log.has("[tq_ostream_mkhdr]tq_ostream: ofs 1000 >= frame size 1000, force fr_bound\n"),
                  c.warned);
    }
    tq_ostream_reset(os.get());
    EXPECT_EQ(make(4, 1).stream_idx, 0);
}

TEST_F(Ostream, ChecksumAndMetaData)
{
    const tq_ostream_cfg_t on = {1};
    tq_ostream_set_cfg(os.get(), &on);
    tq_ostream_reset(os.get()); // leaves it
    const uint8_t data[7] = {1, 0, 0, 0x80, 9, 9, 9};
    const tq_stream_hdr_t summed = make(0, 7, 0, data);
    EXPECT_EQ(summed.flags1, TQ_STREAM_CKSUM);
    EXPECT_EQ(summed.frame.aux, 0x80000001u);
    const tq_stream_hdr_t meta = make(2, 7, 8, data);
    EXPECT_EQ(meta.flags1, TQ_STREAM_META);
    EXPECT_EQ(meta.frame.aux, 8u);
    EXPECT_TRUE(
        log.has("[tq_ostream_mkhdr]tq_ostream: stream meta data not support if data cksum is enabled\n"));
}

TEST_F(Ostream, RefusesAndOverlaps)
{
    tq_stream_hdr_t hdr = {};
    EXPECT_EQ(tq_ostream_mkhdr(os.get(), &hdr, &hdr.frame, nullptr, -1, 0), -1);
    // The frame header may lie anywhere in the header that is made.
    const tq_stream_hdr_t expected = make(5, 10);
    for (const size_t at : {0u, 8u, 12u}) {
        tq_ostream_reset(os.get());
        uint8_t *place = reinterpret_cast<uint8_t *>(&hdr) + at;
        tq_frame_hdr_t frame = expected.frame;
        std::memcpy(place, &frame, sizeof frame);
        tq_ostream_mkhdr(os.get(), &hdr, reinterpret_cast<tq_frame_hdr_t *>(place), nullptr, 10, 0);
        EXPECT_EQ(std::memcmp(&hdr, &expected, sizeof hdr), 0) << at;
    }
}
