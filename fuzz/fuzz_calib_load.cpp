// Opens the input as a calibration file, as it is and with its checksums put right, loads a result from it,
// and cuts that to a part of the sensor. The first bytes choose frequency and part.
#include "calib/calib_result.h"
#include "calib_file_writer.h"
#include "fuzz_input.h"

// Without this hardly an input would pass the open.
static std::vector<uint8_t> sealed(fuzz_input in)
{
    sim_calib_file_t file;
    file.hdr = in.take<par_tq_hdr>();
    for (int i = 0; i < file.hdr.blk_cnt && in.size >= 5; i++) {
        uint32_t size;
        memcpy(&size, in.data + 1, 4);
        file.blocks.push_back(in.take_bytes(5 + size_t{size}));
    }
    return sim_calib_file_bytes(file);
}

void fuzz(fuzz_input in)
{
    const uint32_t freq = std::array{0u, 12000000u, 24000000u, 1u}[in.take<uint8_t>() % 4];
    uint8_t part[5] = {};
    in.take_into(part, sizeof part);
    const calib_roi_t roi{part[0], part[1], part[2], part[3], part[4], {}};
    for (const std::vector<uint8_t> &file : {sealed(in), in.take_bytes()}) {
        calib_result_t res{};
        uint32_t list[4];
        int32_t cnt = 4;
        if (calib_load(memory_file({file.data(), file.size()}).name.data(), freq, &res, list, &cnt) >= 0 &&
            calib_drnu_result_apply_roi(&res, &roi)) {
            const uint64_t bin = std::array{1, 4, 16, 64, 8}[roi.binning];
            const uint64_t pixels = uint64_t{res.blk.img_w} * res.blk.img_h / bin;
            touch(res.planes, 2 * pixels * sizeof(float));
            touch(res.lens, res.lens ? sizeof *res.lens : 0);
        }
        require(cnt >= 0 && cnt <= 4 && res.tcoef_cnt <= CALIB_TCOEF_NUM);
        calib_result_reset(&res);
    }
}
