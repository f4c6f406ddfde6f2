// Writes calibration files: plain structures in, the bytes of a file out. Both generations of the container,
// all forms of block head, every type of block. What the blocks say is the caller's business, also when it
// makes no sense: tests write hostile files with the same functions.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "calib/calib_result.h"
#include "tqcam_param.h"

// A file in the making. hdr.ver and hdr.blk_ver choose the form of what is added, so set them first; magic,
// checksums, block count and block size are filled in at the end.
struct sim_calib_file_t {
    par_tq_hdr hdr{};
    std::vector<std::vector<uint8_t>> blocks; // whole blocks, heads included
};

// One image of phases (32768, or the block's scale, to the turn) of a wall at a known distance.
struct sim_calib_ref_t {
    int32_t ref_um = 0;             // reference distance, thousandths of a millimetre
    uint8_t ns = 0, nf = 0, nc = 0; // delay steps: third, fine, coarse
    std::vector<uint16_t> phase;
};

struct sim_calib_pinhole_t {
    double cx = 0, cy = 0, fx = 0, fy = 0;
};

// Global terms of a ready result, as they stand in the file.
struct sim_calib_global_t {
    int32_t slope_k = 1000, offset = 0;
    float amp = 0, omega = 0, pha = 0, ofs = 0;
    std::array<uint8_t, 24> carried{};
};

struct sim_calib_temp_sample_t {
    uint16_t intg = 0, fps = 0;
    int16_t tcb = 0, tib = 0; // tenths of a degree
    uint32_t phase = 0;
};

sim_calib_file_t sim_calib_file(uint8_t ver, uint8_t blk_ver);

// Reference images of one frequency; info.nref is set to their number. The pinhole is kept from block version
// 142 on.
void sim_calib_add_images(sim_calib_file_t &file, calib_blk_info_t info,
                          const std::vector<sim_calib_ref_t> &refs, const sim_calib_pinhole_t &lens = {});

// A ready result of one frequency: slopes and behind them offsets.
void sim_calib_add_result(sim_calib_file_t &file, const calib_blk_info_t &info,
                          const sim_calib_global_t &global, const std::vector<float> &planes);

// Temperature samples, or coefficients; hdr.cnt is set to their number.
void sim_calib_add_temp_samples(sim_calib_file_t &file, calib_temp_hdr_t hdr,
                                const std::vector<sim_calib_temp_sample_t> &samples);
void sim_calib_add_temp_coefs(sim_calib_file_t &file, calib_temp_hdr_t hdr, const std::vector<float> &coefs);

// A block of any type with a 5-byte head.
void sim_calib_add_raw(sim_calib_file_t &file, uint8_t type, const std::vector<uint8_t> &payload);

// A lens with its tables, as block or as file of its own. Type, size and counts are set.
std::vector<uint8_t> sim_calib_lens_bytes(tq_lens_bin_t lens, const std::vector<float> &grad,
                                          const std::vector<float> &reflect);
void sim_calib_add_lens(sim_calib_file_t &file, const tq_lens_bin_t &lens, const std::vector<float> &grad,
                        const std::vector<float> &reflect);

// The finished file.
std::vector<uint8_t> sim_calib_file_bytes(const sim_calib_file_t &file);

// The header of finished bytes, sealed again with a right checksum after a change.
void sim_calib_set_header(std::vector<uint8_t> &bytes, par_tq_hdr hdr);

// Writes bytes to a file, replacing it. False when that fails.
bool sim_calib_save(const std::string &path, const std::vector<uint8_t> &bytes);
