// One frame as files, in the kinds that were asked for.
#pragma once

#include "cli.h"

struct OutputOptions {
    std::vector<std::string> kinds; // dist, color, gray, undistorted, ply, raw, all
    std::string range;              // LOW:HIGH millimetres for colours
    uint32_t palette = 0;
    bool ascii = false;
};

class FrameOutput {
  public:
    FrameOutput(Device &device, const OutputOptions &options);
    void write(const Capture &capture, const std::string &stem) const; // throws CliError

  private:
    bool wants(const char *kind) const;
    void write_color(const std::vector<uint16_t> &dist, int w, int h, const std::string &path) const;

    Device &device_;
    const OutputOptions &options_;
    uint16_t lo_ = 0, hi_ = 0;
};
