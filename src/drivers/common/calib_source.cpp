#include "drivers/common/calib_source.h"

#include "drivers/common/dev_param.h"
#include "log/log.h"
#include "tqcam_param.h"

static bool _file_ok(tqcam_dev_t *dev, const char *path, const char *caller)
{
    tqcam_param_t file;
    if (!tqcam_param_open_file(&file, path))
        return false;
    struct TQCAM_PACKED {
        uint8_t valid, compressed;
        uint32_t ver, ts, fsize, dsize;
    } pack;
    bool ok = true;
    if (!dev_param_get(dev, TQCAM_PARAM_CALIB_INFO, &pack, sizeof(pack))) {
        LOG_AS(6, "ERR", caller, "[%s] get PARAM_INFO_CALIB failed!\n");
        ok = false;
    } else if (!pack.valid) {
        LOG_AS(4, "INF", caller, "[%s] No valid calib data on dev, use local cache!\n");
    } else if (pack.ts > file.hdr.blk_ts) {
        LOG_AS(5, "WRN", caller, "[%s]local param (ts=%u) is not up-to-date (dev ts=%u)\n",
               uint32_t{file.hdr.blk_ts}, uint32_t{pack.ts});
        ok = false;
    }
    tqcam_param_close(&file);
    return ok;
}

bool calib_source_ready(tqcam_dev_t *dev, const char *path, const char *caller)
{
    if (_file_ok(dev, path, caller))
        return true;
    LOG_AS(4, "INF", caller, "[%s]---- Try to load calib data from device ... \n");
    if (!tqcam_param_load_from_dev(dev)) {
        LOG_AS(5, "WRN", caller, "[%s]---- Load calibration data from device failed\n");
        return false;
    }
    LOG_AS(4, "INF", caller, "[%s]---- Load calibration data from device OK\n");
    tqcam_param_t file;
    const bool ok = tqcam_param_open_file(&file, path);
    tqcam_param_close(&file);
    return ok;
}
