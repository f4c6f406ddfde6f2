#include "drivers/common/sync_check.h"

#include "drivers/common/dev_param.h"
#include "drivers/common/frame_clock.h"

static relaxed_t<uint64_t> _corrected_ms;

bool sync_is_good(const uint16_t *raw, size_t n, uint64_t pixels)
{
    if (n < 8)
        return false;
    const size_t plane = n / 8; // words
    uint64_t good02 = 0, good13 = 0;
    for (size_t i = 0; i < plane; i++) {
        const uint32_t sum02 = (raw[i] & 4095u) + (raw[i + 2 * plane] & 4095u);
        const uint32_t sum13 = (raw[i + plane] & 4095u) + (raw[i + 3 * plane] & 4095u);
        good02 += sum02 >= 4017 && sum02 <= 4175;
        good13 += sum13 >= 4017 && sum13 <= 4175;
    }
    return good02 * 100 > pixels * 60 && good13 * 100 > pixels * 60;
}

bool sync_correct(tqcam_dev_t *dev, uint16_t sync_delay)
{
    const uint64_t now = clock_ms(), last = _corrected_ms;
    if (last && now - last < 1000)
        return false;
    const uint8_t value[3] = {sync_delay == 0, static_cast<uint8_t>(sync_delay),
                              static_cast<uint8_t>(sync_delay >> 8)};
    dev_param_set(dev, PARAM_SYNC, value, sizeof(value));
    _corrected_ms = now;
    return true;
}
