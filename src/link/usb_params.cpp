// Parameters and registers over USB: several commands of a few records each.
#include "link/usb_link.h"

#include <cstring>

#include "log/log.h"

static_assert(sizeof(tqcam_ll_param_t) == 20, "parameters cross the wire as they stand");

// Sends len bytes out and has the command confirmed.
static bool _write_phase(tqcam_ll_dev_t *dev, uint8_t type, uint16_t value, void *data, uint32_t len)
{
    return usb_ll_exe_cmd(dev, true, type, value, data, len, USB_CMD_TIMEOUT_MS) &&
           usb_ll_check_last_cmd(dev, type, static_cast<uint8_t>(value));
}

static bool _read_phase(tqcam_ll_dev_t *dev, uint8_t type, uint16_t value, void *data, uint32_t len)
{
    return usb_ll_exe_cmd(dev, false, type, value, data, len, USB_CMD_TIMEOUT_MS) &&
           usb_ll_check_last_cmd(dev, type, static_cast<uint8_t>(value));
}

bool usb_ll_param_set(tqcam_ll_dev_t *dev, const tqcam_ll_param_t *items, int count)
{
    if (count < 1 || !items)
        return false;
    for (int at = 0; at < count; at += USB_PARAMS_PER_CMD) {
        tqcam_ll_param_t group[USB_PARAMS_PER_CMD];
        const int n = count - at < USB_PARAMS_PER_CMD ? count - at : USB_PARAMS_PER_CMD;
        const auto bytes = static_cast<uint32_t>(n) * static_cast<uint32_t>(sizeof group[0]);
        std::memcpy(group, items + at, bytes);
        UsbOperation operation(dev);
        if (!operation.usable() || !_write_phase(dev, USB_CMD_DEVICE, USB_DEV_PARAM_SET, group, bytes))
            return false;
    }
    return true;
}

bool usb_ll_param_get(tqcam_ll_dev_t *dev, tqcam_ll_param_t *items, int count)
{
    if (count < 1)
        return true;
    if (!items)
        return false;
    for (int i = 0; i < count; i++) {
        items[i].len = 0;
        std::memset(items[i].value, 0, sizeof items[i].value);
    }
    for (int at = 0; at < count; at += USB_PARAMS_PER_CMD) {
        const int n = count - at < USB_PARAMS_PER_CMD ? count - at : USB_PARAMS_PER_CMD;
        const auto bytes = static_cast<uint32_t>(n) * static_cast<uint32_t>(sizeof items[0]);
        UsbOperation operation(dev);
        if (!operation.usable())
            return false;
        if (!_write_phase(dev, USB_CMD_DEVICE, USB_DEV_PARAM_GET, items + at, bytes)) {
            LOG_ERROR("[%s]write phase failed\n");
            return false;
        }
        const bool read = _read_phase(dev, USB_CMD_DEVICE, USB_DEV_PARAM_GET, items + at, bytes);
        for (int i = at; i < at + n; i++) // a part of an answer is in the items too
            if (items[i].len > sizeof items[i].value)
                items[i].len = sizeof items[i].value;
        if (!read) {
            LOG_ERROR("[%s]read phase failed\n");
            return false;
        }
    }
    return true;
}

// Register type, first register and length of the values in bytes, packed, in front of the values.
enum { REG_HEADER = 7 };

static void _reg_header(uint8_t *out, uint8_t type, uint32_t addr, uint32_t bytes)
{
    out[0] = type;
    std::memcpy(out + 1, &addr, 4);
    const auto length = static_cast<uint16_t>(bytes);
    std::memcpy(out + 5, &length, 2);
}

bool usb_ll_reg_write(tqcam_ll_dev_t *dev, uint8_t type, uint32_t addr, const uint32_t *data, uint16_t count)
{
    if (count == 0)
        return true;
    if (!data)
        return false;
    for (uint32_t at = 0; at < count; at += USB_REGS_PER_CMD) {
        const uint32_t n = count - at < USB_REGS_PER_CMD ? count - at : USB_REGS_PER_CMD;
        uint8_t packet[REG_HEADER + USB_REGS_PER_CMD * 4];
        _reg_header(packet, type, addr + at, n * 4);
        std::memcpy(packet + REG_HEADER, data + at, n * 4);
        UsbOperation operation(dev);
        if (!operation.usable())
            return false;
        if (!_write_phase(dev, USB_CMD_SENSOR, USB_SENSOR_REG_WRITE, packet, REG_HEADER + n * 4)) {
            LOG_ERROR("[%s]write phase failed\n");
            return false;
        }
    }
    return true;
}

bool usb_ll_reg_read(tqcam_ll_dev_t *dev, uint8_t type, uint32_t addr, uint32_t *data, uint16_t count)
{
    if (count == 0)
        return true;
    if (!data)
        return false;
    for (uint32_t at = 0; at < count; at += USB_REGS_PER_CMD) {
        const uint32_t n = count - at < USB_REGS_PER_CMD ? count - at : USB_REGS_PER_CMD;
        uint8_t header[REG_HEADER];
        _reg_header(header, type, addr + at, n * 4);
        UsbOperation operation(dev);
        if (!operation.usable())
            return false;
        if (!_write_phase(dev, USB_CMD_SENSOR, USB_SENSOR_REG_READ, header, sizeof header)) {
            LOG_ERROR("[%s]write phase failed\n");
            return false;
        }
        if (!_read_phase(dev, USB_CMD_SENSOR, USB_SENSOR_REG_READ, data + at, n * 4)) {
            LOG_ERROR("[%s]read phase failed\n");
            return false;
        }
    }
    return true;
}
