// A calibration file as the tool sees it: read whole and taken apart even where the library would refuse it,
// so that what is wrong can be said in words.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tqcam_param.h"

// A block of reference images or of a ready result.
struct CalibDrnu {
    uint32_t freq = 0, intg = 0, width = 0, height = 0, scale = 0;
    float ref_cm = 0;
    int t_cal_cb = 0, t_cal_ib = 0; // tenths of a degree
    int images = 0, fps = 0;
    bool ref_is_z = false;
    double cx = 0, cy = 0, fx = 0, fy = 0; // of the head, with ref_is_z
    size_t payload = 0, payload_size = 0;  // place in the file
};

struct CalibTempSample {
    uint16_t intg, fps;
    int16_t tcb, tib;
    uint32_t phase;
};

struct CalibTemp {
    uint32_t freq = 0;
    int tenv = 0, fps = 0, intg = 0;
    std::vector<CalibTempSample> samples; // type 5
    std::vector<float> coefs; // type 6, or fitted to the samples: CB, IB alone, CB, IB, fps together
};

struct CalibBlock {
    int type = 0;
    size_t offset = 0, size = 0; // with head, as far as the file goes
    bool whole = false;
    CalibDrnu drnu;
    CalibTemp temp;
    tq_lens_bin_t lens{};
};

struct CalibFile {
    std::vector<uint8_t> bytes;
    par_tq_hdr hdr{};
    std::vector<CalibBlock> blocks;
    uint16_t cksum = 0, blk_cksum = 0; // as the bytes give them
    std::vector<std::string> problems; // for which the library refuses the file, or the block when it is met
    std::vector<std::string> remarks;  // with which it copes

    // Throws CliError when the file can't be read.
    explicit CalibFile(const std::string &path);

    bool old_container() const { return hdr.ver < TQ_PARAM_VER_BLK; }
    std::string lens_name() const { return {hdr.name, strnlen(hdr.name, sizeof hdr.name)}; }

    // The bytes at a place as a value; zeroes beyond the end.
    template <typename T> T at(size_t offset) const
    {
        T value{};
        if (offset <= bytes.size() && sizeof value <= bytes.size() - offset)
            std::memcpy(&value, bytes.data() + offset, sizeof value);
        return value;
    }

  private:
    void read_header();
    void read_blocks();
    void read_drnu(CalibBlock &block, size_t index);
    void read_temp(CalibBlock &block, size_t index);
    void read_lens(CalibBlock &block, size_t index);
};

// "images", "result", ...
const char *calib_type_name(int type);
