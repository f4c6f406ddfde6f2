// The checksums on vectors. The Fletcher sum: with V bytes a vector and n vectors, byte i of vector j counts
// (n - j) * V - i times in the second sum: the first part comes from adding the running first sum once a
// vector, the second from sums kept for each place in a vector. Remainders wait until a run of vectors is
// over.
#include "stream/checksum.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "stream/checksum_simd.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

#if TQ_PLAIN_TARGET

uint16_t Hash16(const uint8_t *bytes, size_t len, uint32_t seed)
{
    return stream_hash16_plain(bytes, len, seed);
}
uint32_t Sum32(const uint8_t *bytes, size_t len)
{
    return stream_sum32_plain(bytes, len);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

using D8 = hn::ScalableTag<uint8_t>;
using D16 = hn::Repartition<uint16_t, D8>;
using DI16 = hn::Repartition<int16_t, D8>;
using DI32 = hn::Repartition<int32_t, D8>;
using D64 = hn::Repartition<uint64_t, D8>;
using V16 = hn::Vec<D16>;

// Vectors of a run: the sum of a place stays a positive i16.
constexpr size_t RUN = 128;

// The sum of place times weight; 16 bits each.
HWY_INLINE uint64_t WeightedSum(V16 places, V16 weights)
{
    auto odd = hn::Zero(DI32());
    const auto even = hn::ReorderWidenMulAccumulate(DI32(), hn::BitCast(DI16(), places),
                                                    hn::BitCast(DI16(), weights), hn::Zero(DI32()), odd);
    return static_cast<uint64_t>(hn::GetLane(hn::SumOfLanes(DI32(), hn::Add(even, odd))));
}

uint16_t Hash16(const uint8_t *bytes, size_t len, uint32_t seed)
{
    const D8 d8;
    const D16 d16;
    const size_t lanes = hn::Lanes(d8);
    if (len < 4 * lanes)
        return stream_hash16_plain(bytes, len, seed);
    if (len >= 64 * lanes) { // vectors across two lines of the cache cost more than a few bytes
        const size_t head = static_cast<size_t>(-reinterpret_cast<uintptr_t>(bytes)) % lanes;
        seed = stream_hash16_plain(bytes, head, seed);
        bytes += head;
        len -= head;
    }
    uint64_t a = seed & 0xFF, b = (seed >> 8) & 0xFF;
    const V16 low = hn::Set(d16, uint16_t{0xFF}), one = hn::Set(d16, uint16_t{1});
    const V16 even_weights = hn::Add(hn::Iota(d16, uint16_t{0}), hn::Iota(d16, uint16_t{0}));
    const V16 odd_weights = hn::Add(even_weights, one);
    while (len >= lanes) {
        const size_t whole = len / lanes, n = whole < RUN ? whole : RUN;
        auto sum = hn::Zero(D64()), sums = sum;
        V16 even = hn::Zero(d16), odd = even;
        for (size_t j = 0; j < n; j++, bytes += lanes) {
            const auto v = hn::LoadU(d8, bytes);
            sum = hn::Add(sum, hn::SumsOf8(v));
            sums = hn::Add(sums, sum);
            const V16 pairs = hn::BitCast(d16, v);
            even = hn::Add(even, hn::And(pairs, low));
            odd = hn::Add(odd, hn::ShiftRight<8>(pairs));
        }
        b += n * lanes * a + lanes * hn::GetLane(hn::SumOfLanes(D64(), sums)) -
             WeightedSum(even, even_weights) - WeightedSum(odd, odd_weights);
        a += hn::GetLane(hn::SumOfLanes(D64(), sum));
        a %= 255;
        b %= 255;
        len -= n * lanes;
    }
    return stream_hash16_plain(bytes, len, static_cast<uint32_t>(b << 8 | a));
}

uint32_t Sum32(const uint8_t *bytes, size_t len)
{
    const D8 d8;
    const hn::Repartition<uint32_t, D8> d32;
    const size_t lanes = hn::Lanes(d8);
    auto sum0 = hn::Zero(d32), sum1 = sum0;
    for (; len >= 2 * lanes; bytes += 2 * lanes, len -= 2 * lanes) {
        sum0 = hn::Add(sum0, hn::BitCast(d32, hn::LoadU(d8, bytes)));
        sum1 = hn::Add(sum1, hn::BitCast(d32, hn::LoadU(d8, bytes + lanes)));
    }
    // Not SumOfLanes: the compiler's own header adds the lanes of 512 bits as signed integers, which
    // overflow.
    uint32_t rest = stream_sum32_plain(bytes, len), words[hn::MaxLanes(d32)];
    hn::StoreU(hn::Add(sum0, sum1), d32, words);
    for (size_t i = 0; i < hn::Lanes(d32); i++)
        rest += words[i];
    return rest;
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
HWY_EXPORT(Hash16);
HWY_EXPORT(Sum32);

uint16_t stream_hash16_simd(const uint8_t *bytes, size_t len, uint32_t seed)
{
    return HWY_DYNAMIC_DISPATCH(Hash16)(bytes, len, seed);
}

uint32_t stream_sum32_simd(const uint8_t *bytes, size_t len)
{
    return HWY_DYNAMIC_DISPATCH(Sum32)(bytes, len);
}
#endif
