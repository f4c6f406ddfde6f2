// What the commands of the tool share: exit codes, errors in words, the open device, frames one by one.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "tqcam.h"

enum { EXIT_FAILED = 1, EXIT_USAGE = 2, EXIT_NO_DEVICE = 3, EXIT_INTERRUPTED = 130 };

// Ends the command with a message for a person and an exit code.
struct CliError {
    int code;
    std::string text;
};

struct GlobalOptions {
    bool verbose = false;
    std::string data_dir; // where calibration and lens files are
};

// Every command adds itself to the program; its callback does the work.
void add_list(CLI::App &app, const GlobalOptions &global);
void add_info(CLI::App &app, const GlobalOptions &global);
void add_play(CLI::App &app, const GlobalOptions &global);
void add_export(CLI::App &app, const GlobalOptions &global);
void add_params(CLI::App &app, const GlobalOptions &global);
void add_filter(CLI::App &app, const GlobalOptions &global);
void add_snapshot(CLI::App &app, const GlobalOptions &global);
void add_record(CLI::App &app, const GlobalOptions &global);
void add_convert(CLI::App &app, const GlobalOptions &global);
void add_palette(CLI::App &app, const GlobalOptions &global);
void add_calib(CLI::App &app);
void add_calib_exchange(CLI::App &app, const GlobalOptions &global); // behind add_calib
void add_reset(CLI::App &app, const GlobalOptions &global);
void add_flash(CLI::App &app, const GlobalOptions &global);

// The library, started for one command and ended with it.
class Library {
  public:
    explicit Library(const GlobalOptions &global, bool quiet = false);
    ~Library();
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
};

// An open device. Throws CliError when there is none.
class Device {
  public:
    explicit Device(const std::string &uri);
    ~Device();
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    tqcam_dev_t *get() const { return dev_; }
    bool is_replay() const { return dev_->address.if_type == TQCAM_IF_FILE; }
    tqcam_dev_info_t info() const;
    uint32_t param_u32(uint32_t id) const; // 0 when the device doesn't answer
    uint32_t range_mm() const;             // unambiguous range, 0 when unknown
    bool answers() const;                  // is it still there?

  private:
    tqcam_dev_t *dev_;
};

// A running capture that gives one raw frame at a time.
class Capture {
  public:
    // stepped: a replay gives the next frame when asked, as fast as it is asked
    Capture(Device &device, bool stepped);
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    // The next frame; false at the end of a replay, after a time-out, or when capture ended.
    bool next();
    void seek(uint32_t frame); // the next frame is this one, counted from 0; replay only

    // Frames of a replay by its own count, 0 when it has none or for a camera.
    uint32_t frames_total() const { return total_; }
    uint64_t frames_lost() const { return lost_; }
    const std::string &end_reason() const { return end_reason_; }

    tqcam_frame_info_t info = {};
    std::vector<uint8_t> raw;

  private:
    static bool on_error(tqcam_dev_t *dev, int code, uint64_t value);

    Device &device_;
    uint32_t total_ = 0, taken_ = 0;
    uint64_t lost_ = 0;
    int last_error_ = 0;
    int ended_with_ = 0; // the code that came along with the last frame
    std::string end_reason_;
};

// "name", "name=VALUE" or "name=A,B" switches a filter on, "no-name" off. Throws CliError.
void filter_apply(Device &device, const std::string &text);
extern const char filter_help[];

// A scene's true radial distance for each frame, as the simulator leaves it: f32 metres, frame behind frame.
class Truth {
  public:
    explicit Truth(const std::string &path);
    ~Truth();
    Truth(const Truth &) = delete;
    Truth &operator=(const Truth &) = delete;
    bool frame(uint32_t index, size_t pixels, std::vector<float> &out);

  private:
    FILE *file_;
};

// Absolute errors of a distance image (millimetres) against truth (metres), pixels without measurement left
// out.
struct ErrorFigures {
    double median_mm = 0, p95_mm = 0, bias_mm = 0;
    size_t pixels = 0, dropped = 0;
};
ErrorFigures error_figures(const std::vector<uint16_t> &dist, const std::vector<float> &truth);
