// A scripted peer at the libusb boundary. A test lists the conversation that it expects; any other control
// transfer or bulk OUT fails the test. Bulk IN transfers wait until the test completes them.
#pragma once

#include <cstdint>
#include <libusb-1.0/libusb.h>
#include <string>
#include <vector>

struct FakeDevice {
    uint8_t bus = 1, port = 2, addr = 3;
    int speed = LIBUSB_SPEED_HIGH;
    uint16_t vendor = 0x111B, product = 0x1238;
    std::vector<std::vector<uint8_t>> interfaces = {{0x81, 0x02}}; // endpoint addresses of each interface
    int open_error = 0, claim_error = 0;
};

struct FakeStep {
    bool out = true; // host to device
    bool bulk = false;
    uint8_t type = 0;
    uint16_t value = 0;
    std::vector<uint8_t> data; // expected payload (out) or the reply (in)
    bool any_data = false;     // out: payload isn't compared
    int status = LIBUSB_TRANSFER_COMPLETED;
    int delay_ms = 0; // below 0: never completes by itself
    int length = -1;  // reported length, when it isn't that of the data
};

struct FakeBus {
    std::vector<FakeDevice> devices;
    std::vector<FakeStep> script;
    bool busy_forever = false; // every status read beyond the script answers "busy"
    bool silent = false;       // no transfer completes by itself
    int submit_error_bulk_out = 0;

    // Counters over the test.
    int contexts = 0, handles = 0, transfers = 0; // alive
    int max_bulk_in = 0;                          // most bulk IN transfers in flight at once
};

extern FakeBus g_bus;
void fake_reset();
size_t fake_bulk_in_waiting();
size_t fake_waiting(); // transfers of any kind
// Completes the oldest waiting bulk IN transfer; false when none waits.
bool fake_bulk_in(int status, const std::vector<uint8_t> &data);
void fake_unplug(int status); // every waiting transfer ends so, and so does every later one
size_t fake_steps_left();

// Steps of a command as the link runs it: the write, then the status read that confirms it.
void expect_write(uint8_t type, uint16_t value, std::vector<uint8_t> payload, uint8_t status = 0);
void expect_read(uint8_t type, uint16_t value, std::vector<uint8_t> reply, uint8_t status = 0);
void expect_status(uint8_t type, uint8_t value, uint8_t status, const std::string &message = "");
