// The benchmark program: what was compiled, and how, goes into the head of every report.
#include "bench_support.h"

// A scalar cycle, by which times of machines compare: steps that wait for each other. Not additions of
// constants, which some processors fold.
static void add_clock()
{
    constexpr int CYCLES = 4000;
    bench_row("clock/cycle", CYCLES, [] {
        uint64_t v = 0;
        for (int i = 0; i < CYCLES / 8; i++) {
#if defined(__x86_64__)
            asm volatile(".rept 8\n\tnotq %0\n\t.endr" : "+r"(v));
#elif defined(__aarch64__)
            asm volatile(".rept 8\n\tmvn %0, %0\n\t.endr" : "+r"(v));
#endif
        }
        benchmark::DoNotOptimize(v);
    });
}

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
#if defined(__clang__)
    benchmark::AddCustomContext("compiler", "clang " __clang_version__);
#else
    benchmark::AddCustomContext("compiler", "g++ " __VERSION__);
#endif
    benchmark::AddCustomContext("flags", TQCAM_BENCH_FLAGS);
    add_clock();
    benchmark::AddCustomContext("simd", simd_name());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
