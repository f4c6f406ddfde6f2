// DRNU blocks, which hold the images of a frequency or the correction drawn from them, and lens blocks.
#include "calib/calib_blocks.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "calib/drnu_calc.h"
#include "calib/file_read.h"
#include "log/log.h"

static constexpr uint8_t BLK_VER_LENS = 142; // from here on the head brings a pinhole and true flags
static constexpr size_t HEAD_OLD = TQ_PARAM_OLD_BLK_HDR_SIZE, HEAD_SHORT = 42, HEAD_LONG = 90;

// Six global words and 24 carried bytes stand in a ready result as they do in calib_result_t.
static constexpr size_t GLOBAL_SIZE = 48;
static_assert(offsetof(calib_result_t, carried) - offsetof(calib_result_t, slope_k) == 24 &&
              sizeof(calib_result_t::carried) == 24);

struct drnu_head_t {
    calib_blk_info_t info;
    double lens[4]; // cx, cy, fx, fy; 0 where the head has none
    uint64_t payload;
};

// Reads the head in the file's form. False when the block or the file ends in it.
static bool _read_head(const calib_walk_t *walk, drnu_head_t *head)
{
    const tqcam_param_t *param = walk->param;
    const bool old = param->hdr.ver < TQ_PARAM_VER_BLK;
    const size_t size = old ? HEAD_OLD : param->hdr.blk_ver < BLK_VER_LENS ? HEAD_SHORT : HEAD_LONG;
    uint8_t bytes[HEAD_LONG];
    const uint32_t whole = param->blk[walk->i].size;
    if (whole < size || !file_read(param->fp, bytes, size)) {
        LOG_AS(6, "ERR", "calib_load", "[%s]read blk#%d t1/3 hdr failed: %s\n", walk->i,
               whole < size ? "block too small" : "end of file");
        return false;
    }
    std::memset(head, 0, sizeof(*head));
    std::memcpy(&head->info, bytes + (old ? 1 : sizeof(par_dev_hdr)), sizeof(head->info));
    if (size == HEAD_LONG)
        std::memcpy(head->lens, bytes + 57, sizeof(head->lens));
    head->payload = whole - size;

    calib_blk_info_t *info = &head->info;
    if (param->hdr.blk_ver < BLK_VER_LENS) {
        info->fps = 10;
        info->aux0 = 2;
        info->aux1 = 0;
        info->ref_is_z = 0;
    }
    if (info->img_w == 0)
        info->img_w = 320;
    if (info->img_h == 0)
        info->img_h = 240;
    if (info->scale == 0)
        info->scale = 30000;
    return true;
}

// Allocates and reads size bytes of the block in hand. NULL, with a log line, when that fails.
static void *_read_payload(const calib_walk_t *walk, uint64_t size)
{
    const char *why = "end of file";
    void *data = nullptr;
    // A size that the file can't hold is not worth asking memory for.
    if (size <= file_rest(walk->param->fp)) {
        data = std::malloc(size ? size : 1);
        if (!data) {
            LOG_AS(6, "ERR", "calib_load", "[%s]malloc failed\n");
            return nullptr;
        }
        if (file_read(walk->param->fp, data, size))
            return data;
        std::free(data);
    }
    LOG_AS(6, "ERR", "calib_load", "[%s]read blk#%d payload failed: %s\n", walk->i, why);
    return nullptr;
}

static bool _load_images(const calib_walk_t *walk, const drnu_head_t *head)
{
    auto *payload = static_cast<uint8_t *>(_read_payload(walk, head->payload));
    if (!payload)
        return false;
    calib_drnu_input_t in{};
    in.hdr = &walk->param->hdr;
    in.info = head->info;
    in.payload = payload;
    in.payload_size = head->payload;
    if (head->info.ref_is_z) {
        in.cx = head->lens[0];
        in.cy = head->lens[1];
        in.fx = head->lens[2];
        in.fy = head->lens[3];
    }
    float *replaced = walk->res->planes;
    const bool good = calib_drnu_result_calc(&in, walk->res);
    if (good)
        std::free(replaced);
    std::free(payload);
    return good;
}

static bool _load_ready(const calib_walk_t *walk, const drnu_head_t *head)
{
    const calib_blk_info_t *info = &head->info;
    calib_result_t *res = walk->res;
    uint8_t global[GLOBAL_SIZE];
    const uint64_t planes = 2 * sizeof(float) * uint64_t{info->img_w} * info->img_h;
    if (info->img_w > CALIB_IMG_MAX || info->img_h > CALIB_IMG_MAX || head->payload < GLOBAL_SIZE + planes) {
        LOG_AS(6, "ERR", "calib_load", "[%s]read blk#%d data failed: %s\n", walk->i, "planes too small");
        return false;
    }
    if (!file_read(walk->param->fp, global, sizeof(global))) {
        LOG_AS(6, "ERR", "calib_load", "[%s]read blk#%d data failed: %s\n", walk->i, "end of file");
        return false;
    }
    auto *data = static_cast<float *>(_read_payload(walk, head->payload - GLOBAL_SIZE));
    if (!data)
        return false;
    res->blk = *info;
    std::memcpy(reinterpret_cast<uint8_t *>(res) + offsetof(calib_result_t, slope_k), global, sizeof(global));
    std::free(res->planes);
    res->planes = data;
    res->roi_applied = 0;
    res->roi = {0, static_cast<uint16_t>(info->img_h - 1), 0, static_cast<uint16_t>(info->img_w - 1), 0, {}};
    return true;
}

bool calib_load_drnu_block(calib_walk_t *walk)
{
    drnu_head_t head;
    if (!_read_head(walk, &head))
        return false;
    const calib_blk_info_t *info = &head.info;
    if (walk->freq_cnt < walk->freq_room)
        walk->freq_list[walk->freq_cnt++] = info->freq;
    if (walk->target != 0 && walk->target != info->freq)
        return true;
    const uint8_t type = walk->param->blk[walk->i].type;
    if (!(type == TQ_BLK_DRNU_IMAGES ? _load_images(walk, &head) : _load_ready(walk, &head)))
        return false;
    LOG_AS(1, "DBG", "calib_load",
           "[%s] BLK#%u [t=%u]: f=%.1f MHz, t_cal=%.1f/%.1f, fps=%u, nref=%u, intg=%u\n",
           static_cast<unsigned>(walk->i), type, info->freq / 1e6, info->t_cal0 / 10.0, info->t_cal1 / 10.0,
           info->fps, static_cast<uint8_t>(info->nref), info->intg);
    walk->taken = true;
    walk->target = info->freq;
    return true;
}

bool calib_load_lens_block(calib_walk_t *walk)
{
    tq_lens_bin_t *lens = tqcam_param_len_load_bin_fp(walk->param->fp);
    tqcam_param_len_unload(walk->res->lens);
    walk->res->lens = lens;
    if (lens)
        LOG_AS(1, "DBG", "calib_load",
               "[%s] BLK#%u [t=%u]: lens binary loaded: cx/cy/fx/fy=%.3f/%.3f/%.3f/%.3f, img=%u x %u, "
               "n_dcoef=%d, "
               "n_grad=%d, n_reflect=%d\n",
               static_cast<unsigned>(walk->i), TQ_BLK_LENS, static_cast<double>(lens->cx),
               static_cast<double>(lens->cy), static_cast<double>(lens->fx), static_cast<double>(lens->fy),
               lens->img_w, lens->img_h, lens->n_dcoef, lens->n_grad, lens->n_reflect);
    return true;
}
