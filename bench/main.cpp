// The benchmark program: what was compiled, and how, goes into the head of every report.
#include <benchmark/benchmark.h>

#include "simd/dispatch.h"

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
    benchmark::AddCustomContext("simd", simd_name());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
