// How fast recordings are read: frames of 320 x 240 in four planes from the page cache, raw and coded.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "replay/oni_codec.h"
#include "replay/oni_reader.h"
#include "replay/oni_writer.h"

namespace {

constexpr uint32_t SAMPLES = 320 * 240 * 4;
constexpr uint32_t FRAMES = 40;

// Slopes with a little noise, as a camera sees a wall.
std::vector<uint16_t> make_frame(uint32_t seed)
{
    std::vector<uint16_t> frame(SAMPLES);
    for (uint32_t i = 0; i < SAMPLES; i++) {
        seed = seed * 1664525 + 1013904223;
        frame[i] = static_cast<uint16_t>(1000 + i % 320 * 4 + (seed >> 30));
    }
    return frame;
}

void read_frames(benchmark::State &state, uint32_t codec)
{
    const int fd = memfd_create("bench", MFD_CLOEXEC);
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    oni_writer_t *w = oni_writer_open(path.c_str());
    const oni_stream_cfg_t cfg = {.type = 2,
                                  .name = "TQ_REPLAY",
                                  .pix_fmt = 101,
                                  .max_value = 4096,
                                  .width = 320,
                                  .height = 240,
                                  .bpp = 2,
                                  .fps = 30};
    oni_ostream_t *out = oni_ostream_open(w, &cfg);
    out->codec = codec;
    for (uint32_t i = 0; i < FRAMES; i++)
        oni_ostream_save_frame(out, make_frame(i).data(), SAMPLES * 2, i + 1);
    oni_writer_close(w);

    oni_reader_t *r = oni_reader_open(path.c_str(), nullptr, nullptr);
    std::vector<uint16_t> frame(SAMPLES);
    for (auto _ : state) {
        if (oni_istream_get_frame(&r->streams[0], frame.data(), SAMPLES * 2, nullptr, nullptr) == SAMPLES * 2)
            continue;
        oni_reader_rewind(r);
        if (oni_istream_get_frame(&r->streams[0], frame.data(), SAMPLES * 2, nullptr, nullptr) != SAMPLES * 2)
            state.SkipWithError("no frame");
    }
    state.SetBytesProcessed(state.iterations() * SAMPLES * 2);
    oni_reader_close(r);
    close(fd);
}

void BM_replay_read_raw(benchmark::State &state)
{
    read_frames(state, ONI_CODEC_NONE);
}

void BM_replay_read_16zt(benchmark::State &state)
{
    read_frames(state, ONI_CODEC_16ZT);
}

void BM_replay_encode_16zt(benchmark::State &state)
{
    const std::vector<uint16_t> frame = make_frame(1);
    std::vector<uint8_t> block(4 * SAMPLES + 16);
    uint32_t written = 0;
    for (auto _ : state) {
        if (oni_codec_encode(frame.data(), SAMPLES, 4096, block.data(), static_cast<uint32_t>(block.size()),
                             &written) != ONI_CODEC_OK)
            state.SkipWithError("not encoded");
    }
    state.SetBytesProcessed(state.iterations() * SAMPLES * 2);
    state.counters["ratio"] = static_cast<double>(written) / (2 * SAMPLES);
}

BENCHMARK(BM_replay_read_raw);
BENCHMARK(BM_replay_read_16zt);
BENCHMARK(BM_replay_encode_16zt);

} // namespace
