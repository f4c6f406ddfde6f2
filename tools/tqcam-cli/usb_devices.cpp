#include "usb_devices.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace fs = std::filesystem;

static const char *const _sysfs = "/sys/bus/usb/devices";

static std::string _attribute(const fs::path &device, const char *name)
{
    std::ifstream file(device / name);
    std::string line;
    std::getline(file, line);
    return line;
}

static uint8_t _number(const fs::path &device, const char *name)
{
    unsigned value = 0;
    std::sscanf(_attribute(device, name).c_str(), "%u", &value);
    return static_cast<uint8_t>(value);
}

std::vector<UsbDevice> usb_devices()
{
    std::vector<UsbDevice> found;
    std::error_code error;
    for (fs::directory_iterator it(_sysfs, error), end; !error && it != end; it.increment(error)) {
        const fs::path &at = it->path();
        if (_attribute(at, "idVendor") != "111b" || _attribute(at, "idProduct") != "1238")
            continue;
        UsbDevice device;
        device.path = at.filename();
        device.product = _attribute(at, "product");
        device.vendor = _attribute(at, "manufacturer");
        device.serial = _attribute(at, "serial");
        device.bus = _number(at, "busnum");
        device.addr = _number(at, "devnum");
        char node[64];
        std::snprintf(node, sizeof node, "/dev/bus/usb/%03u/%03u", device.bus, device.addr);
        device.may_open = access(node, R_OK | W_OK) == 0;
        found.push_back(device);
    }
    std::sort(found.begin(), found.end(),
              [](const UsbDevice &a, const UsbDevice &b) { return a.path < b.path; });
    return found;
}

const UsbDevice *usb_device_at(const std::vector<UsbDevice> &devices, uint8_t bus, uint8_t addr)
{
    for (const UsbDevice &device : devices)
        if (device.bus == bus && device.addr == addr)
            return &device;
    return nullptr;
}

std::string usb_access_advice(const std::vector<UsbDevice> &devices)
{
    std::string text;
    for (const UsbDevice &device : devices)
        if (!device.may_open)
            text += "the camera at " + device.path + " (" + device.product +
                    ") is there, but this user may not open it\n";
    if (!text.empty())
        text +=
            "as root: install 60-tqcam.rules in /etc/udev/rules.d, run \"udevadm control --reload\", then "
            "plug the camera in again";
    return text;
}
