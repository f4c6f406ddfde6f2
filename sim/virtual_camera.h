// The device side of a camera on USB: commands, parameters, registers, status, the stream, data transfer into
// its memory. No transport: whoever serves it (the USB/IP server, a test in the same process) hands transfers
// in and takes answers out, with the time as it sees it.
//
// The functions may be called from several threads; each takes the camera's lock.
#pragma once

#include "frame_source.h"
#include "replay_recorder.h"
#include "virtual_camera_faults.h"

// How a transfer ends.
typedef enum {
    VCAM_OK,
    VCAM_NOT_YET, // nothing to deliver now: ask again
    VCAM_MORE,    // bytes were delivered, but the transfer isn't over: ask again for the rest
    VCAM_STALL,
    VCAM_HANG, // no answer will come
    VCAM_GONE, // the camera is not on the bus
} vcam_result_t;

typedef struct vcam_reply_t {
    vcam_result_t result;
    uint32_t actual;   // bytes moved
    uint32_t delay_us; // the answer leaves this much later
} vcam_reply_t;

typedef struct vcam_cfg_t {
    sim_config_t sim;
    uint32_t packet_bytes; // payload of a stream packet
    bool checksum; // packets carry a checksum of their payload, where no metadata length is in its place
    std::vector<uint8_t> pack; // calibration pack in the camera's memory, as the device stores it
    vcam_faults_t faults;
} vcam_cfg_t;

// A packet and its header fill one transfer of the host's ring.
inline constexpr uint32_t VCAM_PACKET_BYTES = 153600 - 36;

vcam_cfg_t vcam_config_default(const sim_config_t &sim);

// The pack that a camera keeps a calibration file in: a header, the file, padding to whole slices.
inline constexpr uint32_t VCAM_SLICE_BYTES = 153600;
std::vector<uint8_t> vcam_pack_of_file(const sim_identity_t &id, const std::vector<uint8_t> &file);

// CRC-16 of data packets: polynomial 0x1021, initial value 0 (XMODEM).
uint16_t vcam_crc16(const uint8_t *data, size_t len);

typedef struct vcam_t vcam_t;

vcam_t *vcam_create(const vcam_cfg_t &cfg, sim_source_ptr_t source);
void vcam_destroy(vcam_t *cam);

// A class request: 8 bytes of setup packet; data holds wLength bytes, to read from or to fill.
vcam_reply_t vcam_control(vcam_t *cam, const uint8_t setup[8], uint8_t *data, uint64_t now_us);
vcam_reply_t vcam_bulk_out(vcam_t *cam, const uint8_t *data, uint32_t len, uint64_t now_us);
vcam_reply_t vcam_bulk_in(vcam_t *cam, uint8_t *data, uint32_t len, uint64_t now_us);
void vcam_clear_halt(vcam_t *cam, bool in);

// When a bulk IN transfer that got VCAM_NOT_YET or VCAM_MORE is worth another try.
uint64_t vcam_wake_us(vcam_t *cam, uint64_t now_us);

// The camera left the bus: by a reset of its interface (it wants to return) or pulled out (it doesn't).
// Transfers get VCAM_GONE until it is plugged in again, which keeps its memory and resets all else.
typedef enum { VCAM_PLUGGED, VCAM_RESETTING, VCAM_PULLED } vcam_plug_t;
vcam_plug_t vcam_plug_state(vcam_t *cam);
void vcam_plug_in(vcam_t *cam);
void vcam_pull_out(vcam_t *cam);

typedef struct vcam_stats_t {
    uint64_t frames, frames_skipped; // sent; due while the host took nothing
    uint64_t bytes;                  // of the bulk IN pipe
    uint32_t captures, resets;
} vcam_stats_t;
vcam_stats_t vcam_stats(vcam_t *cam);

// What was written into the camera's memory for a data type, empty when nothing was.
std::vector<uint8_t> vcam_image(vcam_t *cam, uint8_t type);
