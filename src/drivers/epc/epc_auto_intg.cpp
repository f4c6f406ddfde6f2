// Automatic integration time: less when too many samples leave the scale, more when there is room.
#include "drivers/epc/epc_priv.h"

#include <algorithm>

#include "drivers/common/dev_param.h"
#include "log/log.h"

static relaxed_t<uint64_t> _last_ms; // of the last run, for all devices together

int _feature_auto_intg_calc_step(const uint16_t *raw, size_t bytes, uint32_t ratio)
{
    if (bytes < 2)
        return 50;
    const uint64_t words = bytes / 2;
    uint64_t low = 0, good = 0, high = 0;
    for (uint64_t i = 0; i < words; i++) {
        const uint32_t v = raw[i];
        low += v - 2 <= 511 - 2;
        good += v - 512 <= 3584 - 512;
        high += v - 3585 <= 4094 - 3585;
    }
    const uint64_t bad = words - low - good - high;
    const uint32_t bad_pct = static_cast<uint32_t>(bad * 1000 / words); // per mille
    LOG_TRACE("[%s]bad_pct:%d, bad_cnt:%d, cnt_high/low:%d,%d sat_ratio: %d,\n", bad_pct,
              static_cast<uint32_t>(bad), static_cast<uint32_t>(high), static_cast<uint32_t>(low), ratio);
    const int up = low <= 512 && high <= 10 ? 50 : 0;
    if (bad_pct < ratio)
        return up;
    if (bad_pct > 9)
        return -static_cast<int>(bad_pct / 10 * 10);
    if (bad_pct < 1 || high <= 512)
        return up;
    return -10;
}

void _feature_auto_intg(epc_priv_t *p, const uint16_t *raw, size_t bytes)
{
    const uint64_t now = clock_ms(), last = _last_ms;
    if (last && now - last < 2)
        return;
    const int step = _feature_auto_intg_calc_step(raw, bytes, p->auto_intg_ratio);
    uint16_t current;
    if (!dev_param_get(p->dev, TQCAM_PARAM_INTG1, &current, sizeof(current))) {
        LOG_ERROR("[%s]get intg failed\n");
        return;
    }
    _last_ms = now;
    const uint16_t wanted = static_cast<uint16_t>(std::clamp(current + step, 50, 1500));
    if (wanted == current)
        return;
    LOG_DEBUG("[%s]AUTO_INTG: %d->%d\n", current, wanted);
    if (!dev_param_set(p->dev, TQCAM_PARAM_INTG1, &wanted, sizeof(wanted)))
        LOG_ERROR("[%s]adjust intg from %d to %d failed\n", current, wanted);
}
