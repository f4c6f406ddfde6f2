// What the benchmarks share: scenes, sizes, and a row for each form of a kernel. The figure to read is "px",
// the time of one pixel (or of what a benchmark counts), as the minimum over the repetitions, which run in
// random order so that a busy moment of the machine hits all rows alike.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <hwy/highway.h>

#include "simd/dispatch.h"

inline double bench_min(const std::vector<double> &v)
{
    return *std::min_element(v.begin(), v.end());
}

// One row: run() handles `count` pixels.
inline void bench_row(const std::string &name, double count, std::function<void()> run)
{
    benchmark::RegisterBenchmark(name.c_str(),
                                 [count, run](benchmark::State &state) {
                                     for (auto _ : state) {
                                         run();
                                         benchmark::ClobberMemory();
                                     }
                                     state.counters["px"] = benchmark::Counter(
                                         count, benchmark::Counter::kIsIterationInvariantRate |
                                                    benchmark::Counter::kInvert);
                                 })
        ->Unit(benchmark::kMicrosecond)
        ->MinTime(0.002)
        ->Repetitions(31)
        ->ComputeStatistics("min", bench_min)
        ->DisplayAggregatesOnly(true);
}

// A row for the plain form and one for each target that this processor has.
inline void bench_forms(const std::string &name, double count, std::function<void()> run)
{
    for (const int64_t target :
         {(int64_t)0, (int64_t)HWY_SSE4, (int64_t)HWY_AVX2, (int64_t)HWY_AVX3, (int64_t)HWY_NEON}) {
        if (target != 0 && !(simd_targets() & target))
            continue;
        bench_row(name + "/" + (target ? hwy::TargetName(target) : "plain"), count, [target, run] {
            simd_allow(target);
            run();
            simd_allow(-1);
        });
    }
}

// The memory-bound time of the same bytes: a copy of that many bytes.
inline void bench_copy(const std::string &name, double count, size_t bytes)
{
    std::vector<uint8_t> from(bytes, 1), to(bytes);
    bench_row(name + "/copy", count, [from, to]() mutable { memcpy(to.data(), from.data(), from.size()); });
}

// A slanted plane and a ball before it, 12 mm noise; of a hundred pixels so many are holes.
inline std::vector<uint16_t> bench_scene(int w, int h, uint32_t holes)
{
    std::mt19937 rng(1);
    std::vector<uint16_t> v((size_t)w * (size_t)h);
    for (int y = 0; y < h; y++) {
        for (int x = 0; x < w; x++) {
            const double r = std::hypot(x - 0.4 * w, y - 0.5 * h) / (0.3 * h);
            const double z = r < 1 ? 1500 - 300 * std::sqrt(1 - r * r) : 1800 + 4.0 * x * 320 / w + 1.5 * y;
            v[(size_t)(y * w + x)] = rng() % 100 < holes ? 0 : (uint16_t)(z + (rng() % 2401) / 100.0 - 12);
        }
    }
    return v;
}
