// What the virtual camera says of itself on USB, and the standard requests that every USB device answers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "virtual_camera.h"

// As the kernel counts speeds.
typedef enum { USB_SPEED_LOW = 1, USB_SPEED_FULL = 2, USB_SPEED_HIGH = 3, USB_SPEED_SUPER = 5 } usb_speed_t;

inline constexpr uint16_t USB_CAMERA_VENDOR = 0x111B, USB_CAMERA_PRODUCT = 0x1238;
inline constexpr uint8_t USB_EP_IN = 0x81, USB_EP_OUT = 0x01;

// "low", "full", "high", "super"; 0 for another word.
int usb_speed_of(const std::string &word);

std::vector<uint8_t> usb_device_descriptor(usb_speed_t speed);

// One interface with a bulk endpoint in each direction. decoy puts an interface with two IN endpoints before
// it, which a host must pass over.
std::vector<uint8_t> usb_config_descriptor(usb_speed_t speed, bool decoy);

typedef struct usb_strings_t {
    std::string vendor, product, serial;
} usb_strings_t;

typedef struct usb_device_t {
    usb_speed_t speed;
    bool decoy;
    usb_strings_t strings;
    uint8_t configuration;
} usb_device_t;

// A request of the standard kind; data has room for wLength bytes.
vcam_reply_t usb_standard_request(usb_device_t *dev, vcam_t *cam, const uint8_t setup[8], uint8_t *data);
