// Writes simulated frames into a recording, as the library would record them from a camera, and the truth
// beside it: the radial distance of every pixel in metres, 32-bit floats, frame behind frame.
#pragma once

#include "frame_source.h"

#include <cstdio>
#include <vector>

struct oni_writer_t;
struct oni_ostream_t;

// What the device says of itself. The same seed gives the same device.
typedef struct sim_identity_t {
    uint16_t pid, cid, wid;
    uint32_t serial[3];
    uint64_t dev_id;
    uint32_t dev_id32; // the number in the names of the device's files
    uint16_t hardware, software, boot;
} sim_identity_t;

sim_identity_t sim_identity(const sim_config_t &cfg);

inline constexpr char SIM_VENDOR[] = "TQSIM";

// The library's record of a frame, as it goes before the frame into the recording.
struct tqcam_frame_info_t sim_frame_info(const sim_frame_t &frame);

typedef struct sim_recorder_t {
    oni_writer_t *writer;
    oni_ostream_t *raw;
    FILE *truth; // NULL: none is written
    uint32_t frames;
} sim_recorder_t;

// Opens the recording, with the device's node and the settings of the raw stream. calib are the bytes of a
// calibration file that the recording carries, under the name calib_name; none when empty. truth_path may be
// NULL. False, with a sentence in error, when a file can't be made; nothing is left behind then.
bool sim_recorder_open(sim_recorder_t *rec, const char *path, const char *truth_path, const sim_config_t &cfg,
                       const std::string &calib_name, const std::vector<uint8_t> &calib, std::string *error);

// False when a file took no more, as on a full disk.
bool sim_recorder_add(sim_recorder_t *rec, const sim_frame_t &frame);

// Completes the files. False when that failed.
bool sim_recorder_close(sim_recorder_t *rec);

// Removes a file that a failure left half written; what is not a plain file stays.
void sim_recorder_discard(const char *path);
