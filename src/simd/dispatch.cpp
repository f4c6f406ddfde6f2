#include "simd/dispatch.h"

#include <atomic>
#include <cstring>
#include <strings.h>

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

// The bits of one name; false when it is none.
static bool _bits_of(const char *name, size_t len, int64_t *bits)
{
    const auto is = [=](const char *other) {
        return std::strlen(other) == len && !strncasecmp(name, other, len);
    };
    *bits = is("all") ? -1 : 0;
    bool known = is("all") || is("plain");
    for (int64_t bit = 1; bit > 0 && !known; bit <<= 1) {
        known = is(hwy::TargetName(bit)) && !is("Unknown");
        *bits = known ? bit : 0;
    }
    return known;
}

bool simd_allow_names(const char *names)
{
    int64_t allowed = 0;
    for (const char *at = names;; at++) {
        const size_t len = std::strcspn(at, ",");
        int64_t bits;
        if (!_bits_of(at, len, &bits))
            return false;
        allowed |= bits;
        at += len;
        if (!*at)
            break;
    }
    simd_allow(allowed);
    return true;
}

const char *simd_name()
{
    if (!simd_enabled())
        return "plain";
    const int64_t all = hwy::SupportedTargets();
    return hwy::TargetName(all & -all); // a lower bit is a better target
}
