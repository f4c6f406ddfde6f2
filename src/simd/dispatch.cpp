#include "simd/dispatch.h"

#include <atomic>

#include <hwy/highway.h>

static std::atomic<bool> g_plain_only{false};

bool simd_enabled()
{
    return !g_plain_only.load(std::memory_order_relaxed);
}

int64_t simd_targets()
{
    static const int64_t all = hwy::SupportedTargets();
    return all;
}

void simd_allow(int64_t targets)
{
    const int64_t allowed = simd_targets() & targets;
    g_plain_only.store(allowed == 0, std::memory_order_relaxed);
    hwy::SetSupportedTargetsForTest(allowed);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

const char *simd_name()
{
    if (!simd_enabled())
        return "plain";
    const int64_t all = hwy::SupportedTargets();
    return hwy::TargetName(all & -all); // a lower bit is a better target
}
