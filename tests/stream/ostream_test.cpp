// What goes out: packet headers and the checksums in them.
#include <cstring>
#include <gtest/gtest.h>
#include <memory>

#include "stream/checksum.h"
#include "support/kernel_check.h"
#include "tq_stream.h"

TEST(Checksum, AgreesWithTheRuleByteByByte)
{
    EXPECT_EQ(tq_stream_hash16("abcde", 5, 0), 0xC8F0);
    KernelRng rng;
    for (const size_t len : {1u, 34u, 128u, 319u, 5799u, 5800u, 5801u, 8191u, 8192u, 16447u, 100000u}) {
        std::vector<uint8_t> data(len, 0xFF);
        uint32_t a = 0xFF, b = 0xFF; // seeds that aren't remainders
        for (size_t i = 0; i < len; i++) {
            if (i > len / 3)
                data[i] = static_cast<uint8_t>(rng.bits());
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
        EXPECT_EQ(tq_ostream_mkhdr(os.get(), &hdr, &frame, nullptr, -1, 0), -1);
    }
}
