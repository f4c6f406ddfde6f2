// Opens the input as a calibration file, as it is and with its checksums put right, loads a result from it,
// and cuts that to a part of the sensor. The first bytes choose frequency and part.
#include <cstring>
#include <vector>

#include "calib/calib_result.h"
#include "memory_file.h"
#include "tq_log.h"
#include "tq_stream.h"

static volatile float sink;

// Without this hardly an input would pass the open.
static void seal(std::vector<uint8_t> &file)
{
    par_tq_hdr hdr;
    if (file.size() < sizeof(hdr))
        return;
    std::memcpy(&hdr, file.data(), sizeof(hdr));
    const bool old = hdr.ver < TQ_PARAM_VER_BLK;
    hdr.magic = old ? TQ_PARAM_MAGIC_OLD : TQ_PARAM_MAGIC;
    hdr.blk_size = 0;
    uint64_t at = sizeof(hdr);
    for (int i = 0; i < hdr.blk_cnt && !old && at + 5 <= file.size(); i++) {
        uint32_t size;
        std::memcpy(&size, &file[at + 1], 4);
        at += 5 + uint64_t{size};
    }
    if (at <= file.size())
        hdr.blk_cksum =
            tq_stream_hash16(file.data() + sizeof(hdr), static_cast<int32_t>(at - sizeof(hdr)), 0);
    std::memcpy(file.data(), &hdr, sizeof(hdr));
    hdr.cksum = tq_stream_hash16(file.data() + 20, 1168, 0);
    std::memcpy(file.data(), &hdr, sizeof(hdr));
}

static void load(const char *name, uint32_t freq, const calib_roi_t &roi)
{
    calib_result_t res{};
    calib_result_reset(&res);
    uint32_t list[4];
    int32_t cnt = 4;
    if (calib_load(name, freq, &res, list, &cnt) >= 0 && calib_drnu_result_apply_roi(&res, &roi)) {
        const uint32_t bins[] = {1, 4, 16, 64, 8};
        const size_t second = static_cast<size_t>(res.blk.img_w) * res.blk.img_h / bins[roi.binning];
        for (size_t i = 0; i < 2 * second; i++)
            sink = res.planes[i];
        if (res.lens)
            sink = res.lens->cx;
    }
    if (cnt < 0 || cnt > 4 || res.tcoef_cnt > CALIB_TCOEF_NUM)
        std::abort();
    calib_result_reset(&res);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool logs = [] { // lines are formatted, and then go nowhere
        tq_log_init(nullptr, "/dev/null", "FUZZ");
        tq_log_cfg(nullptr, TQ_LOG_CONSOLE, TQ_LOG_SILENT, 0);
        tq_log_cfg(nullptr, TQ_LOG_FILE, TQ_LOG_TRACE, 0);
        return true;
    }();
    if (!logs || size < 6)
        return 0;
    const uint32_t freqs[] = {0, 12000000, 24000000, 1};
    const calib_roi_t roi{data[1], data[2], data[3], data[4], data[5], {}};
    std::vector<uint8_t> file(data + 6, data + size);
    const memory_file raw(file.data(), file.size());
    tqcam_param_t param;
    if (!tqcam_param_open_file(&param, raw.name()) && param.fp)
        fclose(param.fp);
    tqcam_param_close(&param);
    seal(file);
    const memory_file sealed(file.data(), file.size());
    load(sealed.name(), freqs[data[0] % 4], roi);
    return 0;
}
