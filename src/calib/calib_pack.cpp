#include "calib/calib_pack.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

#include "calib/zip_archive.h"
#include "log/log.h"
#include "tqcam_param.h"

struct FileClose {
    void operator()(FILE *file) const { std::fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, FileClose>;

static const char *const _tmp_zip = "tmp.zip"; // in the working directory
constexpr uint32_t COPY_BLOCK = 4096;

calib_pack_hdr_t calib_pack_hdr_read(const uint8_t bytes[CALIB_PACK_HEADER])
{
    calib_pack_hdr_t hdr = {bytes[0], bytes[1], 0, 0, 0, 0};
    std::memcpy(&hdr.ver, bytes + 2, 4);
    std::memcpy(&hdr.ts, bytes + 6, 4);
    std::memcpy(&hdr.fsize, bytes + 10, 4);
    std::memcpy(&hdr.dsize, bytes + 14, 4);
    return hdr;
}

void calib_pack_hdr_write(uint8_t bytes[CALIB_PACK_HEADER], const calib_pack_hdr_t &hdr)
{
    bytes[0] = hdr.valid;
    bytes[1] = hdr.compressed;
    std::memcpy(bytes + 2, &hdr.ver, 4);
    std::memcpy(bytes + 6, &hdr.ts, 4);
    std::memcpy(bytes + 10, &hdr.fsize, 4);
    std::memcpy(bytes + 14, &hdr.dsize, 4);
}

static long _file_size(const char *path)
{
    file_ptr file(std::fopen(path, "r"));
    if (!file) {
        LOG_ERROR("[%s]%s open failed\n", path);
        return -1;
    }
    return std::fseek(file.get(), 0, SEEK_END) == 0 ? std::ftell(file.get()) : -1;
}

// ---- From the device
// ------------------------------------------------------------------------------------------

static int _on_zip_extract_to_folder_entry(const char *path, void *arg)
{
    static std::atomic<int> extracted{0}; // over the whole life of the process
    LOG_DEBUG("[%s]Extracted: %s (%d of %d)\n", path, ++extracted, *static_cast<int *>(arg));
    return 0;
}

// Copies the payload behind the header to the target file. False with its line logged.
static bool _copy_payload(FILE *pack, const char *pack_path, const char *target, uint32_t dsize)
{
    static const char *const fn = "_calib_pk_parse";
    file_ptr out(std::fopen(target, "wb+"));
    if (!out) {
        LOG_AS(6, "ERR", fn, "[%s]Open %s failed\n", target);
        return false;
    }
    uint8_t block[COPY_BLOCK];
    for (uint32_t remain = dsize; remain > 0;) {
        const uint32_t n = remain < COPY_BLOCK ? remain : COPY_BLOCK;
        if (std::fread(block, 1, n, pack) != n) {
            LOG_AS(6, "ERR", fn, "[%s]read %s failed: rem_size = %d\n", pack_path, remain);
            return false;
        }
        if (std::fwrite(block, 1, n, out.get()) != n) {
            LOG_AS(6, "ERR", fn, "[%s]write %s failed: rem_size = %d\n", target, remain);
            return false;
        }
        remain -= n;
    }
    if (std::fclose(out.release()) != 0) {
        LOG_AS(6, "ERR", fn, "[%s]write %s failed: rem_size = %d\n", target, 0);
        return false;
    }
    return true;
}

void _calib_pk_parse(tqcam_dev_t *dev, const char *pack_path)
{
    file_ptr pack(std::fopen(pack_path, "rb"));
    if (!pack) {
        LOG_ERROR("[%s]Open %s failed\n", pack_path);
        return;
    }
    const long length = std::fseek(pack.get(), 0, SEEK_END) == 0 ? std::ftell(pack.get()) : -1;
    std::rewind(pack.get());
    uint8_t bytes[CALIB_PACK_HEADER];
    if (std::fread(bytes, 1, sizeof bytes, pack.get()) != sizeof bytes) {
        LOG_ERROR("[%s]Read header of %s falied\n", pack_path);
        return;
    }
    const calib_pack_hdr_t hdr = calib_pack_hdr_read(bytes);
    LOG_TRACE("[%s]CALIB HDR(compressed): valid=%d, fsize=%d, dsize=%d, ver=%d, ts=%d\n", hdr.valid,
              hdr.fsize, hdr.dsize, hdr.ver, hdr.ts);
    if (hdr.valid == 0 || static_cast<long>(hdr.fsize) != length || hdr.dsize == 0 || hdr.ts == 0 ||
        uint64_t{hdr.dsize} + CALIB_PACK_HEADER > hdr.fsize) {
        LOG_ERROR("[%s]%s header verify failed: valid=%d, ts=%u, fsize=%d (expect=%d), dsize=%d)\n",
                  pack_path, hdr.valid, hdr.ts, hdr.fsize, static_cast<int>(length), hdr.dsize);
        return;
    }
    const bool compressed = hdr.compressed == 1;
    char target[256];
    if (compressed) {
        std::snprintf(target, sizeof target, "%s", _tmp_zip);
        unlink(target);
    } else if (!tq_priv_get_param_absolute_name(dev, target, sizeof target)) {
        LOG_ERROR("[%s]Open %s failed\n", "");
        return;
    }
    if (!_copy_payload(pack.get(), pack_path, target, hdr.dsize))
        return;
    pack.reset();
    if (compressed) {
        int count = 1;
        if (tqzip::zip_extract(target, tqcam_path_get(), _on_zip_extract_to_folder_entry, &count) < 0) {
            LOG_ERROR("[%s]unzip %s failed\n", target);
            return;
        }
        LOG_TRACE("[%s]unzip %s OK\n", target);
        unlink(target);
    }
    unlink(pack_path);
}

// ---- To the device
// --------------------------------------------------------------------------------------------

// What an entry is called, so that unpacking under the path prefix puts the file where the driver looks.
static std::string _entry_name(const char *path)
{
    const std::string full = path, prefix = tqcam_path_get();
    if (!prefix.empty() && full.size() > prefix.size() && full.compare(0, prefix.size(), prefix) == 0)
        return full.substr(prefix.size());
    const size_t slash = full.find_last_of("/\\");
    return slash == std::string::npos ? full : full.substr(slash + 1);
}

static bool _file_zip(const char *in_path, const char *zip_path)
{
    LOG_INFO("[%s]zip(%s,%s)\n", in_path, zip_path);
    file_ptr in(std::fopen(in_path, "rb"));
    tqzip::zip_t *zip = in ? tqzip::zip_open(zip_path, 6, 'w') : nullptr;
    if (!zip) {
        LOG_ERROR("[%s]%s open Error\n", in ? zip_path : in_path);
        return false;
    }
    const long size = _file_size(in_path);
    bool ok = size >= 0 && tqzip::zip_entry_open(zip, _entry_name(in_path).c_str()) == 0;
    uint8_t block[COPY_BLOCK];
    for (long remain = size; ok && remain > 0;) {
        const size_t n = remain < static_cast<long>(COPY_BLOCK) ? static_cast<size_t>(remain) : COPY_BLOCK;
        const size_t got = std::fread(block, 1, n, in.get());
        if (got != n)
            LOG_ERROR("[%s]expect readlen %d,but:%d\n", static_cast<int>(n), static_cast<int>(got));
        ok = got == n && tqzip::zip_entry_write(zip, block, got) == 0;
        remain -= static_cast<long>(got);
    }
    ok = ok && tqzip::zip_entry_close(zip) == 0;
    ok = tqzip::zip_close(zip) == 0 && ok;
    LOG_INFO("[%s]End\n");
    return ok;
}

static bool _write_pack(const char *out_path, const char *payload_path, const calib_pack_hdr_t &hdr,
                        uint32_t padding)
{
    static const char *const fn = "_tqcam_param_encode_construct";
    file_ptr out(std::fopen(out_path, "wb+"));
    if (!out) {
        LOG_AS(6, "ERR", fn, "[%s]Error open %s\n", out_path);
        return false;
    }
    file_ptr in(std::fopen(payload_path, "rb"));
    if (!in) {
        LOG_AS(6, "ERR", fn, "[%s]open :%s failed \n", payload_path);
        return false;
    }
    uint8_t bytes[CALIB_PACK_HEADER];
    calib_pack_hdr_write(bytes, hdr);
    bool ok = std::fwrite(bytes, 1, sizeof bytes, out.get()) == sizeof bytes;
    uint8_t block[COPY_BLOCK];
    for (uint32_t remain = hdr.dsize; ok && remain > 0;) {
        const uint32_t n = remain < COPY_BLOCK ? remain : COPY_BLOCK;
        const size_t got = std::fread(block, 1, n, in.get());
        if (got != n)
            LOG_AS(6, "ERR", fn, "[%s]1expect read:%d ,but:%d\n", n, static_cast<int>(got));
        ok = got == n && std::fwrite(block, 1, got, out.get()) == got;
        remain -= n;
    }
    std::memset(block, 1, sizeof block);
    while (ok && padding > 0) {
        const uint32_t n = padding < COPY_BLOCK ? padding : COPY_BLOCK;
        ok = std::fwrite(block, 1, n, out.get()) == n;
        padding -= n;
    }
    return std::fclose(out.release()) == 0 && ok;
}

bool _tqcam_param_encode_construct(const char *in_path, const char *out_path, uint32_t ver, bool compress)
{
    const long size = _file_size(in_path);
    LOG_INFO("[%s]%s,file size:%d\n", in_path, static_cast<int>(size));
    if (size < 0 || size > INT32_MAX - static_cast<long>(CALIB_PACK_SLICE))
        return false;
    // A file that isn't a calibration gets a pack all the same, with time stamp 0.
    tqcam_param_t param;
    uint32_t ts = 0;
    if (tqcam_param_open_file(&param, in_path)) {
        ts = param.hdr.blk_ts;
        tqcam_param_close(&param);
    }
    LOG_INFO("[%s]calib size:%d\n", static_cast<int>(size));
    LOG_INFO("[%s]Final ts:%d\n", ts);

    calib_pack_hdr_t hdr = {1, 0, ver, ts, 0, static_cast<uint32_t>(size)};
    const char *payload = in_path;
    if (compress) {
        payload = _tmp_zip;
        const long zipped = _file_zip(in_path, _tmp_zip) ? _file_size(_tmp_zip) : -1;
        if (zipped < 1 || zipped > size + (1 << 20)) {
            unlink(_tmp_zip);
            return false;
        }
        hdr.compressed = 1;
        hdr.dsize = static_cast<uint32_t>(zipped);
    }
    hdr.fsize = hdr.dsize + CALIB_PACK_HEADER;
    uint32_t padding = 0;
    if (hdr.fsize % CALIB_PACK_SLICE != 0) {
        padding = CALIB_PACK_SLICE - hdr.fsize % CALIB_PACK_SLICE;
        hdr.fsize += padding;
        LOG_INFO("[%s]%d,%d,%d\n", CALIB_PACK_SLICE, hdr.fsize, padding);
    }
    const bool ok = _write_pack(out_path, payload, hdr, padding);
    if (compress)
        unlink(_tmp_zip);
    return ok;
}
