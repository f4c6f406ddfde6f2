// What the kernel knows of cameras on USB, also of those that this user may not open.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct UsbDevice {
    std::string path; // of buses and ports, as in "1-1.2"
    std::string product, vendor, serial;
    uint8_t bus = 0, addr = 0;
    bool may_open = false;
};

std::vector<UsbDevice> usb_devices();

// The device at this bus and address; NULL when there is none.
const UsbDevice *usb_device_at(const std::vector<UsbDevice> &devices, uint8_t bus, uint8_t addr);

// Why a camera that is there can't be opened, and what helps; empty when no camera is in that state.
std::string usb_access_advice(const std::vector<UsbDevice> &devices);
