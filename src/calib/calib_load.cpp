#include "calib/calib_blocks.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/log.h"

static bool _load_block(calib_walk_t *walk)
{
    const tqcam_param_t *param = walk->param;
    const par_dev_hdr blk = param->blk[walk->i];
    const uint32_t offset = param->blk_ofs[walk->i];
    if (fseeko(param->fp, static_cast<off_t>(offset), SEEK_SET) != 0) {
        LOG_AS(6, "ERR", "calib_load", "[%s]seek blk#%d fail: offset=%u \n", walk->i, offset);
        return false;
    }
    LOG_AS(0, "TRC", "calib_load", "[%s] -> Calib BLK#%u [t: %u, sz: %u]\n", static_cast<unsigned>(walk->i),
           blk.type, blk.size);
    switch (blk.type) {
    case TQ_BLK_DRNU_IMAGES:
    case TQ_BLK_DRNU_RESULT:
        return calib_load_drnu_block(walk);
    case TQ_BLK_TEMP_SAMPLES:
    case TQ_BLK_TEMP_RESULT:
        return calib_load_temp_block(walk);
    case TQ_BLK_LENS:
        return calib_load_lens_block(walk);
    default:
        return true;
    }
}

// Walks an open file. Returns the frequency loaded or the error.
static int32_t _load_blocks(calib_walk_t *walk)
{
    for (walk->i = 0; walk->i < walk->param->hdr.blk_cnt; walk->i++)
        if (!_load_block(walk))
            return -1;
    return walk->taken ? static_cast<int32_t>(walk->target) : -2;
}

int32_t calib_load(const char *filename, uint32_t freq, calib_result_t *res, uint32_t *freq_list,
                   int32_t *freq_cnt)
{
    const int32_t room = freq_cnt ? *freq_cnt : 0;
    if (freq_cnt)
        *freq_cnt = 0;
    if (!filename || !res)
        return -1;
    const uint32_t held = calib_result_freq(res, nullptr);
    if (held >= 1 && !res->roi_applied && (freq == 0 || freq == held)) {
        LOG_TRACE("[%s]Calib data already loaded: freq=%u\n", held);
        return static_cast<int32_t>(held);
    }
    tqcam_param_t param;
    if (!tqcam_param_open_file(&param, filename)) {
        if (param.fp) // a file that failed its last tests is left open
            std::fclose(param.fp);
        return -1;
    }
    std::memset(res, 0, sizeof(*res));
    const par_tq_hdr *hdr = &param.hdr;
    LOG_DEBUG("[%s]Header [%u blks, sz=%u]: v=%d/%d, ts=%u, cx/cy/fx/fy=%f/%f/%f/%f\n",
              static_cast<uint32_t>(hdr->blk_cnt), hdr->blk_size, hdr->ver, hdr->blk_ver, hdr->ts,
              hdr->lens.cx, hdr->lens.cy, hdr->lens.fx, hdr->lens.fy);
    calib_walk_t walk{&param, 0, res, freq, false, freq_list, freq_list ? room : 0, 0};
    const int32_t result = _load_blocks(&walk);
    tqcam_param_close(&param);
    if (freq_cnt)
        *freq_cnt = walk.freq_cnt;
    if (result < 0) {
        calib_result_free(res);
        std::memset(res, 0, sizeof(*res));
    }
    return result;
}

void calib_result_free(calib_result_t *res)
{
    if (!res)
        return;
    std::free(res->planes);
    res->planes = nullptr;
    tqcam_param_len_unload(res->lens);
    res->lens = nullptr;
}

void calib_result_reset(calib_result_t *res)
{
    if (!res)
        return;
    calib_result_free(res);
    std::memset(res, 0, sizeof(*res));
    res->slope_k = 1000;
}
