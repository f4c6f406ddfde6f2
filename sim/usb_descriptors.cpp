#include "usb_descriptors.h"

#include <algorithm>

namespace {

enum : uint8_t {
    GET_STATUS = 0,
    CLEAR_FEATURE = 1,
    SET_FEATURE = 3,
    SET_ADDRESS = 5,
    GET_DESCRIPTOR = 6,
    GET_CONFIGURATION = 8,
    SET_CONFIGURATION = 9,
    GET_INTERFACE = 10,
    SET_INTERFACE = 11,
    SET_SEL = 48,
    SET_ISOCH_DELAY = 49,
};
enum : uint8_t { DESC_DEVICE = 1, DESC_CONFIG = 2, DESC_STRING = 3, DESC_QUALIFIER = 6, DESC_BOS = 15 };

uint16_t _bulk_packet(usb_speed_t speed)
{
    return speed == USB_SPEED_SUPER ? 1024 : speed == USB_SPEED_HIGH ? 512 : speed == USB_SPEED_FULL ? 64 : 8;
}

void _add(std::vector<uint8_t> *out, std::initializer_list<int> bytes)
{
    for (const int byte : bytes)
        out->push_back(static_cast<uint8_t>(byte));
}

void _add_endpoint(std::vector<uint8_t> *out, usb_speed_t speed, uint8_t address)
{
    const uint16_t packet = _bulk_packet(speed);
    _add(out, {7, 5, address, 2, packet & 0xFF, packet >> 8, 0});
    if (speed == USB_SPEED_SUPER) // companion: bursts of 16 packets
        _add(out, {6, 0x30, 15, 0, 0, 0});
}

void _add_interface(std::vector<uint8_t> *out, usb_speed_t speed, int number, uint8_t ep0, uint8_t ep1)
{
    _add(out, {9, 4, number, 0, 2, 0xFF, 0, 0, 0});
    _add_endpoint(out, speed, ep0);
    _add_endpoint(out, speed, ep1);
}

std::vector<uint8_t> _string(const std::string &text)
{
    std::vector<uint8_t> out;
    _add(&out, {static_cast<int>(2 + 2 * text.size()), DESC_STRING});
    for (const char c : text)
        _add(&out, {c, 0});
    return out;
}

std::vector<uint8_t> _descriptor(const usb_device_t &dev, uint8_t type, uint8_t index)
{
    std::vector<uint8_t> out;
    switch (type) {
    case DESC_DEVICE:
        return usb_device_descriptor(dev.speed);
    case DESC_CONFIG:
        return index == 0 ? usb_config_descriptor(dev.speed, dev.decoy) : out;
    case DESC_STRING:
        if (index == 0)
            return {4, DESC_STRING, 0x09, 0x04};
        return index == 1   ? _string(dev.strings.vendor)
               : index == 2 ? _string(dev.strings.product)
               : index == 3 ? _string(dev.strings.serial)
                            : out;
    case DESC_QUALIFIER:
        if (dev.speed == USB_SPEED_HIGH || dev.speed == USB_SPEED_FULL)
            _add(&out, {10, DESC_QUALIFIER, 0, 2, 0, 0, 0, 64, 1, 0});
        return out;
    case DESC_BOS:
        if (dev.speed == USB_SPEED_SUPER)
            _add(&out, {5, DESC_BOS, 22, 0, 2, 7, 16, 2, 2, 0, 0, 0, 10, 16, 3, 0, 14, 0, 1, 10, 0xFF, 7});
        return out;
    default:
        return out;
    }
}

} // namespace

int usb_speed_of(const std::string &word)
{
    return word == "low"     ? USB_SPEED_LOW
           : word == "full"  ? USB_SPEED_FULL
           : word == "high"  ? USB_SPEED_HIGH
           : word == "super" ? USB_SPEED_SUPER
                             : 0;
}

std::vector<uint8_t> usb_device_descriptor(usb_speed_t speed)
{
    const int version = speed == USB_SPEED_SUPER ? 3 : 2;
    const int packet0 = speed == USB_SPEED_SUPER ? 9
                        : speed == USB_SPEED_LOW ? 8
                                                 : 64; // super speed: a power of 2
    std::vector<uint8_t> out;
    _add(&out,
         {18, DESC_DEVICE, 0, version, 0, 0, 0, packet0, USB_CAMERA_VENDOR & 0xFF, USB_CAMERA_VENDOR >> 8,
          USB_CAMERA_PRODUCT & 0xFF, USB_CAMERA_PRODUCT >> 8, 0, 1, 1, 2, 3, 1});
    return out;
}

std::vector<uint8_t> usb_config_descriptor(usb_speed_t speed, bool decoy)
{
    std::vector<uint8_t> out;
    _add(&out, {9, DESC_CONFIG, 0, 0, decoy ? 2 : 1, 1, 0, 0x80, speed == USB_SPEED_SUPER ? 112 : 250});
    if (decoy)
        _add_interface(&out, speed, 0, 0x83, 0x84);
    _add_interface(&out, speed, decoy ? 1 : 0, USB_EP_IN, USB_EP_OUT);
    out[2] = static_cast<uint8_t>(out.size());
    return out;
}

vcam_reply_t usb_standard_request(usb_device_t *dev, vcam_t *cam, const uint8_t setup[8], uint8_t *data)
{
    const uint8_t request = setup[1];
    const uint32_t index = setup[4] | setup[5] << 8, len = setup[6] | setup[7] << 8;
    std::vector<uint8_t> answer;
    switch (request) {
    case GET_DESCRIPTOR:
        answer = _descriptor(*dev, setup[3], setup[2]);
        if (answer.empty())
            return {VCAM_STALL, 0, 0};
        break;
    case GET_STATUS:
        answer = {0, 0};
        break;
    case GET_CONFIGURATION:
        answer = {dev->configuration};
        break;
    case GET_INTERFACE:
        answer = {0};
        break;
    case SET_CONFIGURATION:
        dev->configuration = setup[2];
        break;
    case CLEAR_FEATURE:
        if ((setup[0] & 0x1F) == 2) // recipient endpoint: its halt
            vcam_clear_halt(cam, (index & 0x80) != 0);
        break;
    case SET_FEATURE:
    case SET_ADDRESS:
    case SET_INTERFACE:
    case SET_SEL:
    case SET_ISOCH_DELAY:
        break;
    default:
        return {VCAM_STALL, 0, 0};
    }
    if ((setup[0] & 0x80) == 0)
        return {VCAM_OK, len, 0};
    const uint32_t n = static_cast<uint32_t>(std::min<size_t>(len, answer.size()));
    std::copy_n(answer.begin(), n, data);
    return {VCAM_OK, n, 0};
}
