#include "stream/checksum.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "simd/dispatch.h"
#include "tq_stream.h"

// Headers and checksum words are copied between the wire and structures as they stand.
static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(tq_frame_hdr_t) == 24 && sizeof(tq_stream_hdr_t) == 36);

uint16_t stream_hash16_plain(const uint8_t *bytes, size_t len, uint32_t seed)
{
    // The remainders are put off for as long as the larger sum surely fits 32 bits:
    // 255 + BLOCK * 255 + 255 * BLOCK * (BLOCK + 1) / 2 < 2^32.
    constexpr size_t BLOCK = 5800;
    if (len == 0)
        return static_cast<uint16_t>(seed);
    uint32_t a = seed & 0xFF, b = (seed >> 8) & 0xFF;
    while (len > 0) {
        const size_t n = std::min(len, BLOCK);
        for (size_t i = 0; i < n; i++) {
            a += bytes[i];
            b += a;
        }
        a %= 255;
        b %= 255;
        bytes += n;
        len -= n;
    }
    return static_cast<uint16_t>(a | (b << 8));
}

uint32_t stream_sum32_plain(const uint8_t *bytes, size_t len)
{
    uint32_t sum = 0;
    for (; len >= 4; bytes += 4, len -= 4) {
        uint32_t word;
        std::memcpy(&word, bytes, sizeof word);
        sum += word;
    }
    return sum;
}

uint32_t stream_sum32(const uint8_t *bytes, size_t len)
{
    return (simd_enabled() ? stream_sum32_simd : stream_sum32_plain)(bytes, len);
}

uint16_t tq_stream_hash16(const void *data, int32_t len, uint32_t seed)
{
    const size_t n = len > 0 ? static_cast<size_t>(len) : 0;
    // Headers are hardly a vector long: they don't ask.
    return (n >= 128 && simd_enabled() ? stream_hash16_simd
                                       : stream_hash16_plain)(static_cast<const uint8_t *>(data), n, seed);
}
