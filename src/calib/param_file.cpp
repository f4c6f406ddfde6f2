// The container of calibration files: opening one means proving it.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "calib/file_read.h"
#include "log/log.h"
#include "tq_stream.h"
#include "tqcam_param.h"

static_assert(sizeof(tqcam_lens_param_t) == 172 && sizeof(par_tq_hdr) == 1202 && sizeof(par_dev_hdr) == 5);

static constexpr uint32_t MAX_BLK_SIZE = 0x40000000;
static constexpr uint32_t CHUNK = 1u << 16;

static bool _param_verify(const par_tq_hdr *hdr)
{
    const bool old = hdr->ver < TQ_PARAM_VER_BLK;
    if (hdr->magic != (old ? uint32_t{TQ_PARAM_MAGIC_OLD} : uint32_t{TQ_PARAM_MAGIC})) {
        LOG_WARN("[%s]wrong magic id (ver=%d): 0x%x\n", hdr->ver, hdr->magic);
        return false;
    }
    const auto *bytes = reinterpret_cast<const uint8_t *>(hdr);
    if (tq_stream_hash16(bytes + 20, 1168, 0) != hdr->cksum) {
        LOG_WARN("[%s]wrong cksum (ver=%d): 0x%x\n", hdr->ver, hdr->cksum);
        return false;
    }
    const double cx = hdr->lens.cx, cy = hdr->lens.cy;
    if (hdr->name[0] && !(cx >= 16.0 && cx <= 1024.0 && cy >= 16.0 && cy <= 1024.0)) {
        char name[sizeof(hdr->name) + 1] = {}; // the field may lack its end
        std::memcpy(name, hdr->name, sizeof(hdr->name));
        LOG_WARN("[%s]wrong range for lens param: cx/cy=%.1f/%.1f, name=%64s\n", cx, cy, name);
        return false;
    }
    const auto blk_cnt = static_cast<uint32_t>(hdr->blk_cnt);
    if (blk_cnt > TQ_PARAM_MAX_BLKS) {
        LOG_WARN("[%s]too much param blks: %d\n", hdr->blk_cnt);
        return false;
    }
    if (!old && hdr->blk_size != 0 &&
        (hdr->blk_size < sizeof(par_dev_hdr) * blk_cnt || hdr->blk_size > MAX_BLK_SIZE)) {
        LOG_WARN("[%s]wrong blk total size: %d,max blk size is %d\n", hdr->blk_size, MAX_BLK_SIZE);
        return false;
    }
    return true;
}

// The walk over the blocks logs as the open that it is part of.
#define LOG_OPEN(fmt, ...) LOG_AS(6, "ERR", "tqcam_param_open_file", fmt, __VA_ARGS__)

struct walk_t {
    const char *filename;
    uint64_t pos; // file offset of the next block
    uint16_t sum; // running checksum
    uint8_t *chunk;
};

// Table offsets and sizes have 32 bits; a block that passes them can't be found again.
static bool _fits_table(const walk_t *walk, uint64_t whole)
{
    return walk->pos + whole <= UINT32_MAX;
}

static bool _walk_block(tqcam_param_t *param, int i, walk_t *walk)
{
    par_dev_hdr *blk = &param->blk[i];
    if (!file_read(param->fp, blk, sizeof(*blk))) {
        LOG_OPEN("[%s]read par_dev_hdr failed: %s\n", walk->filename);
        return false;
    }
    walk->sum = tq_stream_hash16(blk, sizeof(*blk), walk->sum);
    const uint64_t whole = uint64_t{blk->size} + sizeof(*blk);
    bool good = _fits_table(walk, whole);
    // The payload passes through a buffer of its own: whatever size is claimed, only what is there is read.
    for (uint64_t left = blk->size; good && left > 0;) {
        const auto n = static_cast<uint32_t>(left < CHUNK ? left : CHUNK);
        good = file_read(param->fp, walk->chunk, n);
        walk->sum = tq_stream_hash16(walk->chunk, static_cast<int32_t>(n), walk->sum);
        left -= n;
    }
    if (!good) {
        LOG_OPEN("[%s]read blk#%d data failed: %s\n", i, walk->filename);
        return false;
    }
    param->blk_ofs[i] = static_cast<uint32_t>(walk->pos);
    blk->size = static_cast<uint32_t>(whole);
    walk->pos += whole;
    return true;
}

static bool _walk_old_block(tqcam_param_t *param, int i, walk_t *walk)
{
    uint8_t head[TQ_PARAM_OLD_BLK_HDR_SIZE];
    if (!file_read(param->fp, head, sizeof(head))) {
        LOG_OPEN("[%s]read blk_unit_hdr failed: %s\n", walk->filename);
        return false;
    }
    if (head[0] != TQ_BLK_DRNU_IMAGES) {
        LOG_OPEN("[%s]wrong blk unit type: %d\n", head[0]);
        return false;
    }
    uint32_t size;
    std::memcpy(&size, head + 22, sizeof(size));
    const uint64_t whole = uint64_t{size} + sizeof(head);
    if (!_fits_table(walk, whole) || fseeko(param->fp, static_cast<off_t>(size), SEEK_CUR) != 0) {
        LOG_OPEN("[%s]read blk#%d data failed: %s\n", i, walk->filename);
        return false;
    }
    param->blk[i].type = head[0];
    param->blk[i].size = static_cast<uint32_t>(whole);
    param->blk_ofs[i] = static_cast<uint32_t>(walk->pos);
    walk->pos += whole;
    return true;
}

static bool _walk_blocks(tqcam_param_t *param, walk_t *walk)
{
    const std::unique_ptr<uint8_t, decltype(&std::free)> chunk(static_cast<uint8_t *>(std::malloc(CHUNK)),
                                                               &std::free);
    if (!chunk) {
        LOG_OPEN("[%s]malloc %u bytes failed\n", CHUNK);
        return false;
    }
    walk->chunk = chunk.get();
    const auto step = param->hdr.ver < TQ_PARAM_VER_BLK ? &_walk_old_block : &_walk_block;
    for (int i = 0; i < param->hdr.blk_cnt; i++)
        if (!step(param, i, walk))
            return false;
    return true;
}

static bool _read_and_verify(tqcam_param_t *param, const char *filename)
{
    if (!file_read(param->fp, &param->hdr, sizeof(param->hdr))) {
        LOG_OPEN("[%s]read tqcam_param_t failed: %s\n", filename);
        return false;
    }
    if (!_param_verify(&param->hdr)) {
        LOG_OPEN("[%s]_param_verify failed: %s\n", filename);
        return false;
    }
    return true;
}

bool tqcam_param_open_file(tqcam_param_t *param, const char *filename)
{
    if (!param)
        return false;
    std::memset(param, 0, sizeof(*param));
    param->fp = filename ? std::fopen(filename, "rb") : nullptr;
    if (!param->fp) {
        LOG_DEBUG("[%s]open calib bin failed: %s\n", filename ? filename : "");
        return false;
    }
    const par_tq_hdr *hdr = &param->hdr;
    walk_t walk{filename, sizeof(*hdr), 0, nullptr};
    bool whole = _read_and_verify(param, filename);
    if (whole) {
        LOG_DEBUG("[%s]calib param : ver=%d, ts=%u, blk cnt=%d, size=%u, cksum=0x%x\n", hdr->ver, hdr->blk_ts,
                  hdr->blk_cnt, hdr->blk_size, hdr->blk_cksum);
        whole = _walk_blocks(param, &walk);
    }
    if (!whole) {
        std::fclose(param->fp);
        param->fp = nullptr;
        return false;
    }

    // From here on a failure leaves the stream open, as callers have always found it.
    if (hdr->ver >= TQ_PARAM_VER_BLK) {
        const uint64_t total = walk.pos - sizeof(*hdr);
        if (hdr->blk_size != 0 && hdr->blk_size != total) {
            LOG_ERROR("[%s]param blks size wrong: size=%d (expect %d)\n", static_cast<uint32_t>(total),
                      hdr->blk_size);
            return false;
        }
        if (hdr->blk_cksum != walk.sum) {
            LOG_ERROR("[%s]param blks cksum failed: ck_sum=0x%x (expect 0x%x)\n", walk.sum, hdr->blk_cksum);
            return false;
        }
    }
    const size_t len = std::strlen(filename);
    if (len >= sizeof(param->name)) {
        LOG_ERROR("[%s]param filename too long: len=%d\n", static_cast<int>(len));
        return false;
    }
    param->opened = 1;
    return true;
}

void tqcam_param_close(tqcam_param_t *param)
{
    if (!param || !param->opened)
        return;
    if (param->fp)
        std::fclose(param->fp);
    param->fp = nullptr;
    param->opened = 0;
}
