// The calibration pack: a calibration file as the camera stores it, behind a header of 18 bytes, zipped or as
// it stands, padded to whole frames of the upload.
#pragma once

#include <cstdint>

#include "tqcam.h"

constexpr uint32_t CALIB_PACK_SLICE = 153600; // one frame of the upload
constexpr uint32_t CALIB_PACK_HEADER = 18;
constexpr uint32_t CALIB_PACK_MAX = 0xA00000;

// The header; parameter 8 reports the same bytes of the pack that the device holds.
struct calib_pack_hdr_t {
    uint8_t valid;
    uint8_t compressed; // 1: the payload is a zip archive
    uint32_t ver;       // chip id in the high 16 bits, wafer id in the low 16 bits
    uint32_t ts;        // of the calibration file
    uint32_t fsize;     // whole pack with padding
    uint32_t dsize;     // payload
};

calib_pack_hdr_t calib_pack_hdr_read(const uint8_t bytes[CALIB_PACK_HEADER]);
void calib_pack_hdr_write(uint8_t bytes[CALIB_PACK_HEADER], const calib_pack_hdr_t &hdr);

// Turns the pack file received from a device into its calibration file under the path prefix. Failures are in
// the log and leave the pack where it is.
void _calib_pk_parse(tqcam_dev_t *dev, const char *pack_path);

// Makes a pack file; false with the reason in the log.
bool _tqcam_param_encode_construct(const char *in_path, const char *out_path, uint32_t ver, bool compress);
