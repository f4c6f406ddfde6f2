#include <gtest/gtest.h>
#include <random>

#include "packets.h"
#include "stream/checksum.h"
#include "support/kernel_check.h"

TEST(Checksum, KnownFletcherSums)
{
    EXPECT_EQ(tq_stream_hash16("abcde", 5, 0), 0xC8F0);
    EXPECT_EQ(tq_stream_hash16("abcdefgh", 8, 0), 0x0627);
    EXPECT_EQ(tq_stream_hash16("def", 3, tq_stream_hash16("abc", 3, 0)), 0x2057);
    EXPECT_EQ(tq_stream_hash16("x", -1, 0x12345678), 0x5678);
}

TEST(Checksum, AgreesWithTheRuleByteByByte)
{
    std::mt19937 random(1);
    for (const size_t len : {1u, 34u, 128u, 319u, 5799u, 5800u, 5801u, 8191u, 8192u, 16447u, 100000u}) {
        bytes_t data(len, 0xFF);
        for (size_t i = len / 3; i < len / 2; i++)
            data[i] = static_cast<uint8_t>(random());
        uint32_t a = 0xFF, b = 0xFF; // seeds that aren't remainders
        for (const uint8_t byte : data) {
            a = (a + byte) % 255;
            b = (b + a) % 255;
        }
        for_each_target([&] {
            EXPECT_EQ(tq_stream_hash16(data.data(), static_cast<int32_t>(len), 0xFFFF), a | (b << 8)) << len;
        });
        EXPECT_EQ(stream_hash16_plain(data.data(), len, 0xFFFF), a | (b << 8)) << len;
    }
    // The sum of words leaves the last bytes out.
    const uint8_t data[] = {0xFF, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0, 9, 9, 9};
    EXPECT_EQ(stream_sum32_plain(data, 11), 1u);
    EXPECT_EQ(stream_sum32_plain(data + 1, 3), 0u);
}
