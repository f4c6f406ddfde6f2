// The options that describe a simulated camera and its scene: the same for recordings and for the live
// camera.
#pragma once

#include "frame_source.h"

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

enum { EXIT_FAILED = 1, EXIT_USAGE = 2, EXIT_INTERRUPTED = 130 };

// Ends the command with a message for a person and an exit code.
struct SimError {
    int code;
    std::string text;
};

struct CameraOptions {
    std::string camera = "E1", scene = "room", defects = "noise", calib;
    std::vector<double> freq_mhz;
    std::optional<double> distance, reflectivity, warmup, temp_cb, temp_ib;
    std::optional<double> offset, offset_spread, slope, periodic, drift, dead, falloff, amplitude, ambient,
        shot, read, saturation, flying;
    std::optional<uint32_t> format, fps, intg, intg2;
    uint64_t seed = 1;
    bool still = false, with_calibration = false;

    void add(CLI::App &app);

    // The settings, checked. Throws SimError.
    sim_config_t config() const;

    // The calibration file that the camera carries: the one named, or one made for this camera; empty without
    // either. Throws SimError.
    std::vector<uint8_t> calib_bytes() const;
    std::string calib_name() const;
};

std::string camera_table();
