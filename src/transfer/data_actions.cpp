#include "transfer/data_actions.h"

#include <cstring>

#include "log/log.h"

constexpr int AL_CMD = 0xCC;

template <typename T> static void _put(uint8_t *at, T value)
{
    std::memcpy(at, &value, sizeof value);
}

template <typename T> static T _get(const uint8_t *at)
{
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

static bool _action(tqcam_ll_dev_t *dev, bool write, int action, void *data, uint32_t len,
                    uint32_t timeout_ms, const char *caller)
{
    if (tqcam_ll_exe_cmd(dev, write, AL_CMD, action, data, len, timeout_ms))
        return true;
    tq_log(nullptr, TQ_LOG_ERROR, "ERR", "[%s]Cmd:(0x%x,0x%x) failed\n", caller, AL_CMD, action);
    return false;
}

bool al_get_data_info(tqcam_ll_dev_t *dev, uint8_t type, al_data_info_t *info)
{
    uint8_t record[16] = {type};
    const bool ok = _action(dev, false, AL_ACTION_INFO, record, sizeof record, 1000, __func__);
    *info = {record[0], _get<uint16_t>(record + 2), _get<uint32_t>(record + 4), _get<uint32_t>(record + 8)};
    return ok;
}

int al_data_declare(tqcam_ll_dev_t *dev, uint8_t type, uint16_t version, uint32_t image_size)
{
    uint8_t record[12] = {};
    record[0] = type == AL_TYPE_ERASE_ONLY ? uint8_t{AL_TYPE_CALIB} : type;
    _put(record + 2, version);
    _put(record + 4, image_size);
    return _action(dev, true, AL_ACTION_DECLARE, record, sizeof record, 10000, "al_data_send_action_info")
               ? 0
               : -1;
}

int al_data_erase(tqcam_ll_dev_t *dev, uint8_t type, uint32_t image_size, uint32_t packet_size)
{
    uint8_t record[13] = {type};
    _put(record + 1, image_size);
    _put(record + 5, packet_size);
    return _action(dev, true, AL_ACTION_ERASE, record, sizeof record, 20000, "al_data_send_action_info") ? 0
                                                                                                         : -1;
}

int al_data_read_ack(tqcam_ll_dev_t *dev, al_ack_t *ack)
{
    uint8_t record[13] = {};
    if (!_action(dev, false, AL_ACTION_ACK, record, sizeof record, 50000, "al_data_read_action_info"))
        return -1;
    *ack = {_get<uint32_t>(record), record[4]};
    return 1;
}

// The two outcomes are told the wrong way round; this read direction is a stub of the protocol, and devices
// and their logs know it as it is.
bool al_get_data_payload(tqcam_ll_dev_t *dev, uint8_t *buffer, uint32_t size)
{
    _put(buffer + 4, size);
    const bool ok = tqcam_ll_exe_cmd(dev, 0, AL_CMD, AL_ACTION_PAYLOAD, buffer, 12, 1000);
    if (ok)
        LOG_ERROR("[%s]Cmd:(0x%x,0x%x) failed\n", AL_CMD, static_cast<int>(AL_ACTION_PAYLOAD));
    return ok;
}
