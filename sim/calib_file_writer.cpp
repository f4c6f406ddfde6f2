#include "calib_file_writer.h"

#include <cstdio>
#include <cstring>

using bytes_t = std::vector<uint8_t>;

static void _put(bytes_t &out, const void *src, size_t n)
{
    const auto *p = static_cast<const uint8_t *>(src);
    out.insert(out.end(), p, p + n);
}

template <typename T> static void _put_value(bytes_t &out, T value)
{
    _put(out, &value, sizeof(value));
}

// The sum as it is defined, one byte at a time: the reader's faster form is tested against it.
static uint16_t _fletcher(const bytes_t &data, uint16_t seed)
{
    unsigned s1 = seed & 255, s2 = seed >> 8;
    for (uint8_t b : data) {
        s1 = (s1 + b) % 255;
        s2 = (s2 + s1) % 255;
    }
    return static_cast<uint16_t>(s2 << 8 | s1);
}

static void _put_dev_hdr(bytes_t &out, uint8_t type, size_t payload)
{
    _put_value(out, type);
    _put_value(out, static_cast<uint32_t>(payload));
}

// Head of a DRNU block in the form of the file's versions, payload bytes to follow.
static bytes_t _drnu_head(const sim_calib_file_t &file, uint8_t type, const calib_blk_info_t &info,
                          const sim_calib_pinhole_t &lens, size_t payload)
{
    bytes_t out;
    if (file.hdr.ver < TQ_PARAM_VER_BLK) {
        // The oldest head keeps the size where later ones keep frame rate and flags.
        _put_value(out, type);
        _put_value(out, info);
        out.resize(TQ_PARAM_OLD_BLK_HDR_SIZE);
        const auto size = static_cast<uint32_t>(payload);
        std::memcpy(out.data() + 22, &size, sizeof(size));
        return out;
    }
    const size_t extension = file.hdr.blk_ver < 142 ? 0 : 48;
    _put_dev_hdr(out, type, sizeof(info) + extension + payload);
    _put_value(out, info);
    if (extension) {
        out.resize(57);
        _put_value(out, lens);
        out.push_back(0);
    }
    return out;
}

sim_calib_file_t sim_calib_file(uint8_t ver, uint8_t blk_ver)
{
    sim_calib_file_t file;
    file.hdr.ver = ver;
    file.hdr.blk_ver = blk_ver;
    return file;
}

void sim_calib_add_images(sim_calib_file_t &file, calib_blk_info_t info,
                          const std::vector<sim_calib_ref_t> &refs, const sim_calib_pinhole_t &lens)
{
    size_t payload = 0;
    for (const auto &ref : refs)
        payload += 20 + 2 * ref.phase.size();
    info.nref = static_cast<int8_t>(refs.size());
    bytes_t out = _drnu_head(file, TQ_BLK_DRNU_IMAGES, info, lens, payload);
    out.reserve(out.size() + payload);
    for (const auto &ref : refs) {
        uint8_t head[20] = {};
        std::memcpy(head, &ref.ref_um, 4);
        head[13] = ref.ns;
        head[14] = ref.nf;
        head[15] = ref.nc;
        _put(out, head, sizeof(head));
        _put(out, ref.phase.data(), 2 * ref.phase.size());
    }
    file.blocks.push_back(std::move(out));
}

void sim_calib_add_result(sim_calib_file_t &file, const calib_blk_info_t &info,
                          const sim_calib_global_t &global, const std::vector<float> &planes)
{
    static_assert(sizeof(global) == 48);
    bytes_t out = _drnu_head(file, TQ_BLK_DRNU_RESULT, info, {}, sizeof(global) + 4 * planes.size());
    _put_value(out, global);
    _put(out, planes.data(), 4 * planes.size());
    file.blocks.push_back(std::move(out));
}

void sim_calib_add_temp_samples(sim_calib_file_t &file, calib_temp_hdr_t hdr,
                                const std::vector<sim_calib_temp_sample_t> &samples)
{
    static_assert(sizeof(sim_calib_temp_sample_t) == 12);
    hdr.cnt = static_cast<uint16_t>(samples.size());
    bytes_t payload;
    _put_value(payload, hdr);
    _put(payload, samples.data(), 12 * samples.size());
    sim_calib_add_raw(file, TQ_BLK_TEMP_SAMPLES, payload);
}

void sim_calib_add_temp_coefs(sim_calib_file_t &file, calib_temp_hdr_t hdr, const std::vector<float> &coefs)
{
    hdr.cnt = static_cast<uint16_t>(coefs.size());
    bytes_t payload;
    _put_value(payload, hdr);
    _put(payload, coefs.data(), 4 * coefs.size());
    sim_calib_add_raw(file, TQ_BLK_TEMP_RESULT, payload);
}

void sim_calib_add_raw(sim_calib_file_t &file, uint8_t type, const std::vector<uint8_t> &payload)
{
    bytes_t out;
    _put_dev_hdr(out, type, payload.size());
    _put(out, payload.data(), payload.size());
    file.blocks.push_back(std::move(out));
}

std::vector<uint8_t> sim_calib_lens_bytes(tq_lens_bin_t lens, const std::vector<float> &grad,
                                          const std::vector<float> &reflect)
{
    lens.type = TQ_BLK_LENS;
    lens.n_grad = static_cast<uint32_t>(grad.size());
    lens.n_reflect = static_cast<uint32_t>(reflect.size());
    lens.size = 220 + 4 * (lens.n_grad + lens.n_reflect);
    bytes_t out;
    _put_value(out, lens);
    _put(out, grad.data(), 4 * grad.size());
    _put(out, reflect.data(), 4 * reflect.size());
    return out;
}

void sim_calib_add_lens(sim_calib_file_t &file, const tq_lens_bin_t &lens, const std::vector<float> &grad,
                        const std::vector<float> &reflect)
{
    file.blocks.push_back(sim_calib_lens_bytes(lens, grad, reflect));
}

void sim_calib_set_header(std::vector<uint8_t> &bytes, par_tq_hdr hdr)
{
    std::memcpy(bytes.data(), &hdr, sizeof(hdr));
    hdr.cksum = _fletcher(bytes_t(bytes.begin() + 20, bytes.begin() + 1188), 0);
    std::memcpy(bytes.data(), &hdr, sizeof(hdr));
}

std::vector<uint8_t> sim_calib_file_bytes(const sim_calib_file_t &file)
{
    par_tq_hdr hdr = file.hdr;
    const bool old = hdr.ver < TQ_PARAM_VER_BLK;
    hdr.magic = old ? TQ_PARAM_MAGIC_OLD : TQ_PARAM_MAGIC;
    hdr.blk_cnt = static_cast<int32_t>(file.blocks.size());
    hdr.blk_size = 0;
    hdr.blk_cksum = 0;
    bytes_t out(sizeof(hdr));
    for (const auto &block : file.blocks) {
        hdr.blk_size += static_cast<uint32_t>(block.size());
        hdr.blk_cksum = old ? 0 : _fletcher(block, hdr.blk_cksum);
        _put(out, block.data(), block.size());
    }
    sim_calib_set_header(out, hdr);
    return out;
}

bool sim_calib_save(const std::string &path, const std::vector<uint8_t> &bytes)
{
    FILE *fp = std::fopen(path.c_str(), "wb");
    if (!fp)
        return false;
    const bool whole = bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), fp) == bytes.size();
    return std::fclose(fp) == 0 && whole;
}
