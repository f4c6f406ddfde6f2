// A scripted camera behind the fake libusb. A test lists the conversation that it expects; any other control
// transfer or bulk OUT fails the test. Bulk IN transfers wait until the test completes them.
#pragma once

#include <deque>
#include <string>

#include "support/libusb/fake_libusb.h"

struct PeerStep {
    bool out = true; // host to device
    uint8_t type = 0;
    uint16_t value = 0;
    std::vector<uint8_t> data = {}; // expected payload (out), any if empty, or the reply (in)
    bool never = false;             // doesn't complete by itself
};

struct Peer {
    std::deque<PeerStep> script;
    bool silent = false;    // no transfer completes by itself
    int beyond = -1;        // status of every command written beyond the script
    int bulk_out_error = 0; // of the submit
};

extern Peer peer;
void peer_reset();
size_t peer_waiting(); // transfers with the peer
// Completes the oldest waiting bulk IN transfer; false when none waits.
bool peer_bulk_in(int status, const std::vector<uint8_t> &data);
void peer_unplug(int status); // every waiting transfer ends so, and no other is taken

// Steps of a command as the link runs it: the write or read, then the status read that confirms it.
void expect_write(uint8_t type, uint16_t value, std::vector<uint8_t> payload, uint8_t status = 0);
void expect_read(uint8_t type, uint16_t value, std::vector<uint8_t> reply);
void expect_status(uint8_t type, uint8_t value, uint8_t status, const std::string &message = "");
