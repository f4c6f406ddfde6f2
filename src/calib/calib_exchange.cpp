// Calibration between the host and the camera's own memory: fetched as a small capture run of pack slices,
// sent with the data transfer.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

#include "api/device.h"
#include "calib/calib_pack.h"
#include "log/log.h"

constexpr uint32_t DEV_MODE_NORMAL = 0, DEV_MODE_DATA_UP = 9;
constexpr uint16_t FRAME_FMT_PACK = 171;
constexpr uint16_t SOFTWARE_WITH_PACKS = 133; // older devices don't serve one
constexpr uint16_t PACK_VERSION = 65531;
constexpr uint32_t PACK_ADDR = 270090256;

static bool _set_dev_mode(tqcam_dev_t *dev, uint32_t mode)
{
    tqcam_param_item_t item = {};
    item.param_id = TQCAM_PARAM_DEV_MODE;
    item.param_len = 1;
    std::memcpy(item.value, &mode, sizeof mode);
    return tqcam_param_batch_set(dev, &item, 1);
}

static bool _get_param(tqcam_dev_t *dev, uint32_t id, uint8_t len, tqcam_param_item_t *item)
{
    *item = {};
    item->param_id = id;
    item->param_len = len;
    return tqcam_param_batch_get(dev, item, 1);
}

// Fetches the pack's slices into the file, in order, for as long as they come.
static void _fetch_slices(tqcam_dev_t *dev, FILE *file, const char *path, uint32_t fr_num)
{
    static const char *const fn = "tqcam_param_load_from_dev";
    std::unique_ptr<uint8_t, void (*)(void *)> buffer(
        static_cast<uint8_t *>(std::calloc(1, CALIB_PACK_SLICE)), std::free);
    if (!buffer) {
        LOG_AS(6, "ERR", fn, "[%s]malloc failed\n");
        std::exit(-3);
    }
    if (!tqcam_cap_start(dev))
        return;
    uint32_t strangers = 0, got_slices = 0;
    for (uint32_t remain = fr_num; remain > 0;) {
        tqcam_frame_t frame;
        const int ret = tqcam_cap_get_frames(dev, 1, buffer.get(), CALIB_PACK_SLICE, &frame);
        if (ret != 1) {
            LOG_AS(6, "ERR", fn, "[%s]get calib frames failed: ret=%d\n", ret);
            break;
        }
        const tqcam_frame_info_t &info = frame.frame_info;
        if (info.frame_format != FRAME_FMT_PACK || info.frame_size == 0) {
            // The last image of the mode before may still be on its way, ahead of the first slice.
            strangers++;
            LOG_AS(5, "WRN", fn, "[%s]Get non-calib frames: fmt=%d, size=%u, fr_num = %d, inv=%d\n",
                   info.frame_format, info.frame_size, fr_num, strangers);
            if (strangers > 1 || got_slices > 0)
                break;
            continue;
        }
        if (std::fwrite(buffer.get(), 1, CALIB_PACK_SLICE, file) != CALIB_PACK_SLICE) {
            LOG_AS(6, "ERR", fn, "[%s]write calib frames to %s failed\n", path);
            break;
        }
        got_slices++;
        remain--;
        if (info.frame_idx >= fr_num - 1)
            break;
    }
    tqcam_cap_stop(dev);
}

// The device is in upload mode: asks what pack it holds, fetches and unpacks it. True once it offered a
// usable one.
static bool _fetch_pack(tqcam_dev_t *dev)
{
    static const char *const fn = "tqcam_param_load_from_dev";
    tqcam_param_item_t item;
    if (!_get_param(dev, TQCAM_PARAM_CALIB_INFO, CALIB_PACK_HEADER, &item)) {
        LOG_AS(6, "ERR", fn, "[%s] get param of calib data failed!\n");
        return false;
    }
    const calib_pack_hdr_t hdr = calib_pack_hdr_read(item.value);
    const uint32_t fr_num = hdr.fsize / CALIB_PACK_SLICE;
    LOG_AS(1, "DBG", fn, "[%s]dev calib: valid=%d, fsize=%d, fr_num=%d\n", hdr.valid, hdr.fsize, fr_num);
    if (hdr.valid != 1 || dev->version.software < SOFTWARE_WITH_PACKS || hdr.ts == 0 ||
        hdr.fsize > CALIB_PACK_MAX || hdr.fsize < uint64_t{hdr.dsize} + CALIB_PACK_HEADER)
        return false;

    char path[256];
    std::snprintf(path, sizeof path, "%scalibration.bin", tqcam_path_get());
    FILE *file = std::fopen(path, "wb+");
    if (!file) {
        LOG_AS(6, "ERR", fn, "[%s]open %s failed\n", path);
        return false;
    }
    if (fr_num > 0)
        _fetch_slices(dev, file, path, fr_num);
    std::fclose(file);
    _calib_pk_parse(dev, path);
    return true;
}

bool tqcam_param_load_from_dev(tqcam_dev_t *dev)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    tqcam_cap_stop(dev);
    tqcam_cap_cfg_t cfg = {};
    cfg.cache_frames_cnt = 4;
    tqcam_cap_config_set(dev, &cfg);
    if (!_set_dev_mode(dev, DEV_MODE_DATA_UP)) {
        LOG_ERROR("[%s] set mode to DATA_UP failed!\n");
        return false;
    }
    const bool offered = _fetch_pack(dev);
    if (!_set_dev_mode(dev, DEV_MODE_NORMAL) && !_set_dev_mode(dev, DEV_MODE_NORMAL))
        LOG_ERROR("[%s]Device set back to normal mode failed! It may not work\n");
    return offered;
}

bool tqcam_calib_bin_data_pk_and_download_ex(tqcam_dev_t *dev, int compress, int download, const char *path)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    tqcam_param_item_t item;
    if (!_get_param(dev, TQCAM_PARAM_CHIP_ID, 6, &item)) {
        LOG_ERROR("[%s]Get chip info failed\n");
        return false;
    }
    uint16_t chip, wafer;
    std::memcpy(&chip, item.value + 2, 2);
    std::memcpy(&wafer, item.value + 4, 2);
    const uint32_t ver = uint32_t{chip} << 16 | wafer;
    LOG_INFO("[%s]ver:%d\n", ver);
    LOG_INFO("[%s]wafer_id:%d,chip_id:%d\n", wafer, chip);
    char pack[64];
    std::snprintf(pack, sizeof pack, "tcm_ex_encode_rel_W%03i_C%03i.bin", wafer, chip);

    char own[256];
    if (path) {
        LOG_INFO("[%s]download calib file from Specified file.\n");
    } else {
        if (!tq_priv_get_param_absolute_name(dev, own, sizeof own))
            return false;
        path = own;
        LOG_INFO("[%s]download calib file from calibration.\n");
    }
    if (!_tqcam_param_encode_construct(path, pack, ver, compress != 0)) {
        LOG_ERROR("[%s]Construct calibration file failed\n");
        return false;
    }
    if (!download)
        return true;
    if (tqcam_data_download(dev, pack, 3, PACK_VERSION, PACK_ADDR) < 1) {
        LOG_ERROR("[%s]Download failed\n");
        unlink(pack);
        return false;
    }
    LOG_INFO("[%s]Clibration data:%s download ok\n", pack);
    LOG_INFO("[%s]reset device\n");
    tqcam_dev_reset(dev, 0);
    unlink(pack);
    return true;
}
