// The 16-bit codec, both ways.
#include "replay/oni_codec.h"

#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

using Samples = std::vector<uint16_t>;
using Block = std::vector<uint8_t>;

Samples decode(const Block &block, uint32_t room, oni_codec_status_t *status)
{
    Samples out(room);
    uint32_t written = 99;
    *status =
        oni_codec_decode(block.data(), static_cast<uint32_t>(block.size()), out.data(), 2 * room, &written);
    EXPECT_EQ(written % 2, 0u);
    out.resize(written / 2);
    return out;
}

// Into a block of the exact room, which comes back as long as it was filled.
oni_codec_status_t encode(const Samples &in, uint32_t table, Block *out)
{
    uint32_t size = 0;
    const oni_codec_status_t status =
        oni_codec_encode(in.data(), static_cast<uint32_t>(in.size()), table, out->data(),
                         static_cast<uint32_t>(out->size()), &size);
    out->resize(size);
    return status;
}

} // namespace

TEST(OniCodec, BytesMeanWhatTheFormatSays)
{
    const Block head = {4, 0, 10, 0, 20, 0, 30, 0, 40, 0}; // four values, then the first index
    const struct {
        const char *what;
        Block tail;
        oni_codec_status_t status;
        Samples out;
    } cases[] = {
        {"pair of differences", {1, 0, 0x57}, ONI_CODEC_OK, {20, 30, 20}},
        {"half byte and a short long form", {3, 0, 0x7F, 0xC2}, ONI_CODEC_OK, {40, 30, 10}},
        {"a run", {1, 0, 0xE2}, ONI_CODEC_OK, {20, 20, 20, 20, 20}},
        {"long form by index", {0, 0, 0xFF, 0, 3}, ONI_CODEC_OK, {10, 40}},
        {"first index outside", {4, 0}, ONI_CODEC_BAD_INPUT, {}},
        {"below the table", {0, 0, 0x7D}, ONI_CODEC_BAD_INPUT, {10}},
        {"above the table", {3, 0, 0x65}, ONI_CODEC_BAD_INPUT, {40, 40}},
        {"first index cut", {1}, ONI_CODEC_BAD_INPUT, {}},
        {"run beyond the room", {0, 0, 0xFE}, ONI_CODEC_FULL, {10, 10, 10, 10, 10, 10, 10, 10}},
    };
    oni_codec_status_t status;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Block block = head;
        block.insert(block.end(), c.tail.begin(), c.tail.end());
        EXPECT_EQ(decode(block, 8, &status), c.out);
        EXPECT_EQ(status, c.status);
    }
}

TEST(OniCodec, RoundTripsRandomAndExtremeImages)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 400; round++) {
        Samples in(1 + rng() % (round % 20 == 0 ? 60000 : 300));
        uint32_t v = rng() % 4096, i = 0;
        for (uint16_t &sample : in) {
            const uint64_t next[] = {rng() % 9 == 0 ? rng() % 3 : v,   // long runs
                                     i++ % 4096,                       // a ramp and its fall
                                     (v + rng() % 200 + 3996) % 4096}; // both long forms
            v = static_cast<uint32_t>(next[round % 3]);
            sample = static_cast<uint16_t>(v);
        }
        // Ends on a long form: a half byte at the end would stand ahead of the run that it followed.
        in.insert(in.end(), {0, 500, 1000, 1500, 2000, 2500, 3000, 3500, 4095, 0});
        Block block(5 * in.size() + 2 * 4096 + 16);
        ASSERT_EQ(encode(in, 4096, &block), ONI_CODEC_OK);
        oni_codec_status_t status;
        ASSERT_EQ(decode(block, static_cast<uint32_t>(in.size()), &status), in) << "round " << round;
        EXPECT_EQ(status, ONI_CODEC_OK);
        block.pop_back(); // with any less room the encoder fails and stays inside
        EXPECT_EQ(encode(in, 4096, &block), ONI_CODEC_FULL);
    }
    Block block(100);
    EXPECT_EQ(encode({1, 1, 1, 2}, 4096, &block), ONI_CODEC_OK);
    oni_codec_status_t status;
    EXPECT_EQ(decode(block, 4, &status), (Samples{1, 2, 2, 2}));
    block.resize(100);
    EXPECT_EQ(encode(Samples(39, 7), 4096, &block), ONI_CODEC_OK);
    EXPECT_EQ(block, (Block{1, 0, 7, 0, 0, 0, 0xEF, 0xE4})); // 19 pairs, 15 in a run at most
    for (const Samples &in : {Samples{}, Samples{16}})       // nothing, or outside the table
        EXPECT_EQ(encode(in, 16, &block), ONI_CODEC_BAD_INPUT);
}
