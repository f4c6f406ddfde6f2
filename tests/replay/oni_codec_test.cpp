// The 16-bit codec, both ways.
#include "replay/oni_codec.h"

#include <cstring>
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

// What comes back: the format puts a half byte at the end ahead of the run of equal samples that it followed.
Samples as_the_format_has_it(Samples s)
{
    // Replays the writer's pairing to find a run that is pending at the end.
    std::vector<uint16_t> table(s);
    std::sort(table.begin(), table.end());
    table.erase(std::unique(table.begin(), table.end()), table.end());
    bool half = false, half_zero = false;
    size_t run = 0;
    for (size_t i = 1; i < s.size(); i++) {
        const auto index = [&](uint16_t v) {
            return std::lower_bound(table.begin(), table.end(), v) - table.begin();
        };
        const int d = static_cast<int>(index(s[i - 1]) - index(s[i]));
        if (abs(d) > 6) {
            half = false;
            run = 0;
        } else if (!half) {
            half = true;
            half_zero = d == 0;
        } else {
            run = half_zero && d == 0 ? (run + 1) % 15 : 0;
            half = false;
        }
    }
    if (half)
        std::fill(s.end() - 1 - 2 * static_cast<long>(run), s.end(), s.back());
    return s;
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
        {"first sample alone", {1, 0}, ONI_CODEC_OK, {20}},
        {"pair of differences", {1, 0, 0x57}, ONI_CODEC_OK, {20, 30, 20}},
        {"half byte at the end", {1, 0, 0x4D}, ONI_CODEC_OK, {20, 40}},
        {"half byte and a short long form", {3, 0, 0x7F, 0xC2}, ONI_CODEC_OK, {40, 30, 10}},
        {"no samples", {1, 0, 0xE0}, ONI_CODEC_OK, {20}},
        {"a run", {1, 0, 0xE2}, ONI_CODEC_OK, {20, 20, 20, 20, 20}},
        {"long form by index", {0, 0, 0xFF, 0, 3}, ONI_CODEC_OK, {10, 40}},
        {"first index outside", {4, 0}, ONI_CODEC_BAD_INPUT, {}},
        {"below the table", {0, 0, 0x7D}, ONI_CODEC_BAD_INPUT, {10}},
        {"above the table", {3, 0, 0x65}, ONI_CODEC_BAD_INPUT, {40, 40}},
        {"long form outside", {0, 0, 0xFF, 0x7F, 0xFF}, ONI_CODEC_BAD_INPUT, {10}},
        {"long form cut", {0, 0, 0xFF}, ONI_CODEC_BAD_INPUT, {10}},
        {"long form cut after one byte", {0, 0, 0x6F, 0x00}, ONI_CODEC_BAD_INPUT, {10, 10}},
        {"first index cut", {1}, ONI_CODEC_BAD_INPUT, {}},
        {"run beyond the room", {0, 0, 0xFE}, ONI_CODEC_FULL, {10, 10, 10, 10, 10, 10, 10, 10}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Block block = head;
        block.insert(block.end(), c.tail.begin(), c.tail.end());
        oni_codec_status_t status;
        EXPECT_EQ(decode(block, 8, &status), c.out);
        EXPECT_EQ(status, c.status);
    }
    uint16_t out;
    uint32_t written;
    const Block hollow = {0xFF, 0xFF, 0, 0}; // a table that its block doesn't hold
    EXPECT_EQ(oni_codec_decode(hollow.data(), 1, &out, 2, &written), ONI_CODEC_BAD_INPUT);
    EXPECT_EQ(oni_codec_decode(hollow.data(), 4, &out, 2, &written), ONI_CODEC_BAD_INPUT);
    EXPECT_EQ(oni_codec_decode(nullptr, 4, &out, 2, &written), ONI_CODEC_BAD_INPUT);
    EXPECT_EQ(oni_codec_decode(hollow.data(), 4, nullptr, 2, &written), ONI_CODEC_BAD_INPUT);
    const Block one = {1, 0, 9, 0, 0, 0};
    EXPECT_EQ(oni_codec_decode(one.data(), 6, &out, 1, &written), ONI_CODEC_FULL); // one byte is no sample
}

TEST(OniCodec, RoundTripsRandomAndExtremeImages)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 400; round++) {
        const uint32_t n = 1 + rng() % (round % 20 == 0 ? 60000 : 300);
        const int kind = round % 6;
        Samples in(n);
        uint32_t v = rng() % 4096;
        for (uint32_t i = 0; i < n; i++) {
            if (kind == 0)
                v = rng() % 4096;
            else if (kind == 1)
                v = (v + 4096 + rng() % 21 - 10) % 4096;
            else if (kind == 2)
                v = rng() % 9 == 0 ? rng() % 3 : v; // long runs
            else if (kind == 3)
                v = i % 4096; // a ramp and its fall
            else if (kind == 4)
                v = (v + rng() % 200 + 4096 - 100) % 4096; // both long forms
            in[i] = static_cast<uint16_t>(v);
        }
        Block block(2 * n + 2 * 4096 + 3 * n + 16);
        uint32_t size = 0;
        ASSERT_EQ(
            oni_codec_encode(in.data(), n, 4096, block.data(), static_cast<uint32_t>(block.size()), &size),
            ONI_CODEC_OK);
        block.resize(size);
        oni_codec_status_t status;
        ASSERT_EQ(decode(block, n, &status), as_the_format_has_it(in)) << "round " << round;
        EXPECT_EQ(status, ONI_CODEC_OK);
        // With any less room the encoder fails and stays inside.
        Block tight(size - 1);
        EXPECT_EQ(oni_codec_encode(in.data(), n, 4096, tight.data(), size - 1, &size), ONI_CODEC_FULL);
    }
}

TEST(OniCodec, EncoderRefusesWhatTheFormatCannotSay)
{
    Samples all(65535);
    for (uint32_t i = 0; i < all.size(); i++)
        all[i] = static_cast<uint16_t>(i);
    Block out(400000);
    uint32_t size;
    auto encode = [&](const Samples &s, uint32_t table) {
        return oni_codec_encode(s.data(), static_cast<uint32_t>(s.size()), table, out.data(),
                                static_cast<uint32_t>(out.size()), &size);
    };
    EXPECT_EQ(encode({}, 16), ONI_CODEC_BAD_INPUT);
    EXPECT_EQ(encode({16}, 16), ONI_CODEC_BAD_INPUT);
    EXPECT_EQ(encode({0}, 0), ONI_CODEC_BAD_INPUT);
    EXPECT_EQ(encode({65535}, 0xFFFFFFFF), ONI_CODEC_OK);
    EXPECT_EQ(encode(all, 65536), ONI_CODEC_OK); // a ramp needs no long form
    all.push_back(0);
    EXPECT_EQ(encode(all, 65536), ONI_CODEC_OK); // back to a low index
    all.push_back(60000);
    EXPECT_EQ(encode(all, 65536), ONI_CODEC_BAD_INPUT); // an index of 16 bits has no long form
}
