// What loading a calibration costs: the fit of every pixel, a verified open, and a whole load.
#include <benchmark/benchmark.h>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <string>
#include <vector>

#include "calib/calib_result.h"
#include "calib/drnu_fit.h"
#include "calib_file_writer.h"
#include "prng.h"
#include "simd/dispatch.h"

namespace {

// Images of a wall that steps away, with noise.
std::vector<uint8_t> images(size_t pixels, int n)
{
    sim_rng_t rng{7};
    std::vector<uint8_t> out(2 * pixels * static_cast<size_t>(n));
    auto *v = reinterpret_cast<uint16_t *>(out.data());
    for (int k = 0; k < n; k++)
        for (size_t p = 0; p < pixels; p++)
            *v++ = static_cast<uint16_t>(1000 + 700 * k + sim_rng_next(rng) % 16);
    return out;
}

// 307,200 pixels, 50 images; argument 1 takes the plain form, argument 2 a distance for each pixel.
void BM_drnu_fit(benchmark::State &state)
{
    const size_t pixels = 640 * 480;
    const int n = 50;
    const std::vector<uint8_t> src = images(pixels, n);
    std::vector<float> y(static_cast<size_t>(n) * DRNU_TILE), work(y.size());
    std::vector<float> out(3 * DRNU_TILE);
    const bool per_pixel = state.range(1) != 0;
    for (size_t i = 0; i < y.size(); i++)
        y[i] = 300.0f * static_cast<float>(per_pixel ? i / DRNU_TILE : i);
    const drnu_fit_t fit{src.data(), 2 * pixels, n, n, 12491.352f, y.data(), per_pixel};
    for (auto _ : state) {
        for (size_t p = 0; p < pixels; p += DRNU_TILE)
            (state.range(0) ? drnu_fit_tile_plain : drnu_fit_tile_simd)(
                &fit, p, DRNU_TILE, work.data(), &out[0], &out[DRNU_TILE], &out[2 * DRNU_TILE]);
        benchmark::ClobberMemory();
    }
    state.counters["ns/sample"] =
        benchmark::Counter(static_cast<double>(pixels) * n,
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_drnu_fit)
    ->ArgNames({"plain", "rays"})
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// A file of 320 x 240 with 40 images.
struct file_t {
    std::string path = (std::filesystem::temp_directory_path() / "tqcam_bench_calib.bin").string();
    size_t size = 0;
    explicit file_t(bool rays)
    {
        sim_calib_file_t file = sim_calib_file(150, 142);
        const std::vector<uint8_t> src = images(320 * 240, 40);
        std::vector<sim_calib_ref_t> refs(40);
        for (int k = 0; k < 40; k++) {
            const auto *v = reinterpret_cast<const uint16_t *>(src.data()) + 320 * 240 * k;
            refs[k] = {270000 * k, 0, 0, 0, {v, v + 320 * 240}};
        }
        calib_blk_info_t info{};
        info.freq = 12000000;
        info.ref_is_z = rays;
        sim_calib_add_images(file, info, refs, {160, 120, 230, 230});
        const std::vector<uint8_t> bytes = sim_calib_file_bytes(file);
        size = bytes.size();
        sim_calib_save(path, bytes);
    }
    ~file_t() { std::filesystem::remove(path); }
};

void BM_calib_open(benchmark::State &state)
{
    const file_t file(false);
    for (auto _ : state) {
        tqcam_param_t param;
        if (!tqcam_param_open_file(&param, file.path.c_str()))
            state.SkipWithError("open failed");
        tqcam_param_close(&param);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * file.size));
}
BENCHMARK(BM_calib_open)->Unit(benchmark::kMillisecond);

// A line of /proc/self/status, in MiB.
double memory_mib(const std::string &key)
{
    std::ifstream in("/proc/self/status");
    for (std::string word; in >> word;)
        if (word == key + ":" && in >> word)
            return std::stod(word) / 1024;
    return 0;
}

void BM_calib_load(benchmark::State &state)
{
    const file_t file(state.range(1) != 0);
    malloc_trim(0);
    const double before = memory_mib("VmRSS");
    std::ofstream("/proc/self/clear_refs") << 5; // the peak starts anew
    simd_allow(state.range(0) ? 0 : -1);
    calib_result_t res{};
    for (auto _ : state) {
        int32_t cnt = 0;
        if (calib_load(file.path.c_str(), 0, &res, nullptr, &cnt) != 12000000)
            state.SkipWithError("load failed");
        calib_result_reset(&res);
    }
    simd_allow(-1);
    state.counters["file_MiB"] = static_cast<double>(file.size) / (1 << 20);
    state.counters["peak_MiB"] = memory_mib("VmHWM") - before;
}
BENCHMARK(BM_calib_load)
    ->ArgNames({"plain", "rays"})
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

} // namespace
