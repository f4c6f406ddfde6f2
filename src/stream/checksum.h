// The two checksums of the stream: the plain forms, which define the results, and forms on vectors.
#pragma once

#include <cstddef>
#include <cstdint>

// Fletcher sum with modulus 255 over len bytes; seed holds the two running sums, low byte first.
uint16_t stream_hash16_plain(const uint8_t *bytes, size_t len, uint32_t seed);
uint16_t stream_hash16_simd(const uint8_t *bytes, size_t len, uint32_t seed);

// Sum modulo 2^32 of the whole little-endian u32 words of len bytes; up to 3 bytes at the end don't count.
uint32_t stream_sum32_plain(const uint8_t *bytes, size_t len);
uint32_t stream_sum32_simd(const uint8_t *bytes, size_t len);
uint32_t stream_sum32(const uint8_t *bytes, size_t len); // the form that runs
