// Reassembly in the pieces that links deliver, and the checksums beside memcpy.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstring>
#include <vector>
#include <zlib.h>

#include "stream/checksum.h"
#include "tq_stream.h"

namespace {
constexpr uint32_t FRAME = 614400; // 320 x 240, four planes of u16
constexpr uint32_t PACKET = 153600 - sizeof(tq_stream_hdr_t);

// Ten frames in packets that fill a transfer each, as a camera sends them.
std::vector<uint8_t> camera_stream(bool cksum)
{
    std::vector<uint8_t> frame(FRAME), out;
    for (uint32_t i = 0; i < FRAME; i++)
        frame[i] = static_cast<uint8_t>(i * 7 + (i >> 9));
    tq_ostream_t *os = tq_ostream_create();
    const tq_ostream_cfg_t cfg = {cksum};
    tq_ostream_set_cfg(os, &cfg);
    for (uint16_t f = 0; f < 10; f++) {
        for (uint32_t at = 0; at < FRAME; at += PACKET) {
            const uint32_t n = FRAME - at < PACKET ? FRAME - at : PACKET;
            const tq_frame_hdr_t frame_hdr = {FRAME, f, 2, 320, 240, 0, 0, 0, 0};
            tq_stream_hdr_t hdr;
            tq_ostream_mkhdr(os, &hdr, &frame_hdr, frame.data() + at, static_cast<int32_t>(n), 0);
            const uint8_t *bytes = reinterpret_cast<const uint8_t *>(&hdr);
            out.insert(out.end(), bytes, bytes + sizeof hdr);
            out.insert(out.end(), frame.begin() + at, frame.begin() + at + n);
        }
    }
    tq_ostream_destroy(os);
    return out;
}

void BM_stream_feed(benchmark::State &state)
{
    const size_t piece = static_cast<size_t>(state.range(0));
    const std::vector<uint8_t> bytes = camera_stream(state.range(1) != 0);
    const tq_stream_cfg_t cfg = {10};
    tq_stream_t *stream = tq_stream_create(&cfg);
    std::vector<uint8_t> dst(FRAME);
    uint32_t frames = 0;
    for (auto _ : state) {
        for (size_t at = 0; at < bytes.size(); at += piece) {
            const size_t n = std::min(piece, bytes.size() - at);
            if (tq_stream_feed_input(stream, bytes.data() + at, static_cast<int32_t>(n)))
                frames += tq_stream_fetch_frames(stream, nullptr, 0, 1, nullptr, false);
        }
    }
    tq_stream_destroy(stream);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
    if (frames < 10)
        state.SkipWithError("frames were lost");
}
BENCHMARK(BM_stream_feed)->ArgNames({"piece", "cksum"})->Args({153600, 0})->Args({153600, 1})->Args({36, 0});

template <typename F> void over_frame(benchmark::State &state, F f)
{
    const size_t len = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> src(len, 0x5A), dst(len);
    for (auto _ : state) {
        f(dst.data(), src.data(), len);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}

void BM_memcpy(benchmark::State &state)
{
    over_frame(state, [](uint8_t *dst, const uint8_t *src, size_t n) { std::memcpy(dst, src, n); });
}
void BM_stream_hash16(benchmark::State &state)
{
    over_frame(state, [](uint8_t *, const uint8_t *src, size_t n) {
        benchmark::DoNotOptimize(tq_stream_hash16(src, static_cast<int32_t>(n), 0));
    });
}
void BM_stream_hash16_plain(benchmark::State &state)
{
    over_frame(state, [](uint8_t *, const uint8_t *src, size_t n) {
        benchmark::DoNotOptimize(stream_hash16_plain(src, n, 0));
    });
}
// The peer of the hash: two sums as well, of another modulus.
void BM_zlib_adler32(benchmark::State &state)
{
    over_frame(state, [](uint8_t *, const uint8_t *src, size_t n) {
        benchmark::DoNotOptimize(adler32(1, src, static_cast<uInt>(n)));
    });
}
void BM_stream_sum32(benchmark::State &state)
{
    over_frame(state, [](uint8_t *, const uint8_t *src, size_t n) {
        benchmark::DoNotOptimize(stream_sum32(src, n));
    });
}
// As payloads are taken: by the transfer, summed and copied.
void BM_stream_copy_sum32(benchmark::State &state)
{
    over_frame(state, [](uint8_t *dst, const uint8_t *src, size_t n) {
        for (size_t at = 0; at < n; at += PACKET) {
            const size_t piece = std::min<size_t>(PACKET, n - at);
            benchmark::DoNotOptimize(stream_sum32(src + at, piece));
            std::memcpy(dst + at, src + at, piece);
        }
    });
}
BENCHMARK(BM_memcpy)->Arg(34)->Arg(153600)->Arg(FRAME)->Arg(6 << 20);
BENCHMARK(BM_stream_hash16)->Arg(34)->Arg(153600)->Arg(FRAME)->Arg(6 << 20);
BENCHMARK(BM_stream_hash16_plain)->Arg(6 << 20);
BENCHMARK(BM_zlib_adler32)->Arg(FRAME)->Arg(6 << 20);
BENCHMARK(BM_stream_copy_sum32)->Arg(FRAME)->Arg(6 << 20);
BENCHMARK(BM_stream_sum32)->Arg(153600)->Arg(FRAME)->Arg(6 << 20);
} // namespace
