// Which forms of a kernel may run. Every kernel has a plain form, which defines its result, and may have a
// vector form, compiled for several targets from one source and chosen at run time by Highway. All forms give
// the same bits. Tests and tools switch targets off to run the others on one machine.
#pragma once

#include <cstdint>

// True when a vector form may run, false when only the plain forms may.
bool simd_enabled();

// The targets that this processor has and the build knows, as Highway's bits (HWY_AVX2, HWY_NEON, ...).
int64_t simd_targets();

// Allows only the targets in the mask; 0 leaves the plain forms alone, -1 allows all again. For tests and
// tools, while no other thread runs a kernel.
void simd_allow(int64_t targets);

// The same by names, separated by commas, in any case: "plain", "all", or Highway's names of targets, of
// which the best named one that this processor has runs. False for a name that is none; nothing changes then.
bool simd_allow_names(const char *names);

// The name of the form that runs now: "plain" or Highway's name of the target.
const char *simd_name();
