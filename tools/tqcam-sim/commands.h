// What the tool can do. Each command throws SimError when it fails.
#pragma once

#include "options.h"
#include "usbip_server.h"

struct RecordOptions {
    CameraOptions camera;
    std::string out;
    uint32_t frames = 30;
    bool no_truth = false;
};

void record_add(CLI::App &app, RecordOptions &options);
void record_run(const RecordOptions &options);

struct UsbOptions {
    CameraOptions camera;
    std::string host = "127.0.0.1", speed = "high", speed_after_reset = "high", play, save;
    uint16_t port = USBIP_PORT;
    bool attach = false, checksum = false, decoy = false;
    uint32_t replug_ms = 1000, loop = 0, packet = VCAM_PACKET_BYTES;
    std::vector<std::string> faults;
};

void usb_add(CLI::App &app, UsbOptions &options);
void usb_run(const UsbOptions &options);
