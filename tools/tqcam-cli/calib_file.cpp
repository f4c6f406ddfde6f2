#include "calib_file.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <memory>

#include "cli.h"
#include "tq_math.h"
#include "tq_stream.h"

static constexpr size_t FILE_MAX = size_t{1} << 30; // blocks end there in any case

__attribute__((format(printf, 2, 3))) static void _say(std::vector<std::string> &list, const char *fmt, ...)
{
    char text[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    list.push_back(text);
}

const char *calib_type_name(int type)
{
    switch (type) {
    case TQ_BLK_DRNU_IMAGES:
        return "images";
    case TQ_BLK_DRNU_RESULT:
        return "result";
    case TQ_BLK_LENS:
        return "lens";
    case TQ_BLK_TEMP_SAMPLES:
        return "temperature samples";
    case TQ_BLK_TEMP_RESULT:
        return "temperature coefficients";
    default:
        return "unknown";
    }
}

CalibFile::CalibFile(const std::string &path)
{
    const std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path.c_str(), "rb"), std::fclose);
    std::vector<uint8_t> piece(1 << 20);
    size_t n = 0;
    while (file && bytes.size() < FILE_MAX && (n = std::fread(piece.data(), 1, piece.size(), file.get())) > 0)
        bytes.insert(bytes.end(), piece.begin(), piece.begin() + static_cast<long>(n));
    if (!file || std::ferror(file.get()))
        throw CliError{EXIT_FAILED, "can't read " + path};
    if (bytes.size() < sizeof hdr) {
        _say(problems, "the file has %zu bytes, its header alone needs %zu", bytes.size(), sizeof hdr);
        return;
    }
    std::memcpy(&hdr, bytes.data(), sizeof hdr);
    read_header();
    read_blocks();
}

void CalibFile::read_header()
{
    const uint32_t magic = old_container() ? uint32_t{TQ_PARAM_MAGIC_OLD} : uint32_t{TQ_PARAM_MAGIC};
    if (hdr.magic != magic)
        _say(problems, "magic 0x%x, but a file of version %u has 0x%x", hdr.magic, hdr.ver, magic);
    cksum = tq_stream_hash16(bytes.data() + 20, 1168, 0);
    if (hdr.cksum != cksum)
        _say(problems, "the header states the checksum 0x%04x, its bytes give 0x%04x", hdr.cksum, cksum);
    const double cx = hdr.lens.cx, cy = hdr.lens.cy;
    if (hdr.name[0] && !(cx >= 16 && cx <= 1024 && cy >= 16 && cy <= 1024))
        _say(problems, "the header's lens has its centre at %g, %g; each must lie in 16 to 1024", cx, cy);
    if (static_cast<uint32_t>(hdr.blk_cnt) > TQ_PARAM_MAX_BLKS)
        _say(problems, "%d blocks are stated; 0 to %d are allowed", hdr.blk_cnt, TQ_PARAM_MAX_BLKS);
    if (!old_container() && hdr.blk_size > 0x40000000)
        _say(problems, "%u bytes of blocks are stated; at most %u are allowed", hdr.blk_size, 0x40000000u);
}

void CalibFile::read_blocks()
{
    size_t pos = sizeof hdr;
    const int count = std::clamp(hdr.blk_cnt, 0, static_cast<int>(TQ_PARAM_MAX_BLKS));
    const size_t head = old_container() ? size_t{TQ_PARAM_OLD_BLK_HDR_SIZE} : sizeof(par_dev_hdr);
    for (int i = 0; i < count; i++) {
        if (bytes.size() - pos < head) {
            _say(problems, "the file ends after %d of %d blocks", i, hdr.blk_cnt);
            return;
        }
        CalibBlock block;
        block.type = bytes[pos];
        block.offset = pos;
        const uint64_t stated = head + uint64_t{at<uint32_t>(pos + (old_container() ? 22 : 1))};
        block.size = static_cast<size_t>(std::min<uint64_t>(stated, bytes.size() - pos));
        block.whole = block.size == stated;
        if (!block.whole)
            _say(problems, "block %d (%s) states %llu bytes, %zu are left in the file", i,
                 calib_type_name(block.type), static_cast<unsigned long long>(stated), block.size);
        if (!old_container())
            blk_cksum = tq_stream_hash16(bytes.data() + pos, static_cast<int32_t>(block.size), blk_cksum);
        else if (block.type != TQ_BLK_DRNU_IMAGES)
            _say(problems, "block %d is of type %d; a file of version %u holds type 1 alone", i, block.type,
                 hdr.ver);
        if (block.type == TQ_BLK_DRNU_IMAGES || block.type == TQ_BLK_DRNU_RESULT)
            read_drnu(block, static_cast<size_t>(i));
        else if (block.type == TQ_BLK_TEMP_SAMPLES || block.type == TQ_BLK_TEMP_RESULT)
            read_temp(block, static_cast<size_t>(i));
        else if (block.type == TQ_BLK_LENS)
            read_lens(block, static_cast<size_t>(i));
        else
            _say(remarks, "block %d is of unknown type %d and will be passed over", i, block.type);
        pos += block.size;
        blocks.push_back(block);
        if (!block.whole)
            return;
    }
    if (!old_container() && hdr.blk_size != 0 && hdr.blk_size != pos - sizeof hdr)
        _say(problems, "the header states %u bytes of blocks, they have %zu", hdr.blk_size, pos - sizeof hdr);
    if (!old_container() && hdr.blk_cksum != blk_cksum)
        _say(problems, "the header states the block checksum 0x%04x, the blocks give 0x%04x", hdr.blk_cksum,
             blk_cksum);
    if (pos < bytes.size())
        _say(remarks, "%zu bytes follow the last block", bytes.size() - pos);
    if (std::none_of(blocks.begin(), blocks.end(), [](const CalibBlock &b) { return b.drnu.freq != 0; }))
        _say(problems, "no block calibrates any frequency");
}

void CalibFile::read_drnu(CalibBlock &block, size_t index)
{
    const bool with_pinhole = !old_container() && hdr.blk_ver >= 142;
    const size_t head = with_pinhole ? 90 : 42, info = block.offset + (old_container() ? 1 : 5);
    if (block.size < head) {
        _say(problems, "block %zu has %zu bytes, its head alone needs %zu", index, block.size, head);
        return;
    }
    CalibDrnu &d = block.drnu;
    d.freq = at<uint32_t>(info);
    d.ref_cm = at<float>(info + 8);
    d.intg = at<uint32_t>(info + 12);
    d.t_cal_cb = at<int16_t>(info + 16);
    d.t_cal_ib = at<int16_t>(info + 18);
    d.images = at<int8_t>(info + 20);
    d.fps = hdr.blk_ver < 142 ? 10 : at<uint8_t>(info + 21);
    d.ref_is_z = hdr.blk_ver >= 142 && at<uint8_t>(info + 24) == 1;
    d.width = at<uint32_t>(info + 25);
    d.height = at<uint32_t>(info + 29);
    d.scale = at<uint32_t>(info + 33);
    d.width = d.width ? d.width : 320;
    d.height = d.height ? d.height : 240;
    d.scale = d.scale ? d.scale : 30000;
    if (with_pinhole && d.ref_is_z) {
        d.cx = at<double>(block.offset + 57);
        d.cy = at<double>(block.offset + 65);
        d.fx = at<double>(block.offset + 73);
        d.fy = at<double>(block.offset + 81);
        if (!(std::isfinite(d.cx) && std::isfinite(d.cy) && std::isnormal(d.fx) && std::isnormal(d.fy)))
            _say(remarks, "block %zu gives depths, but no pinhole to turn them into distances", index);
    }
    d.payload = block.offset + head;
    d.payload_size = block.size - head;

    const char *what = calib_type_name(block.type);
    const uint64_t pixels = uint64_t{d.width} * d.height;
    if (d.freq == 0)
        _say(problems, "block %zu (%s) has the frequency 0", index, what);
    if (d.width > 4096 || d.height > 4096 ||
        (block.type == TQ_BLK_DRNU_IMAGES && (d.width < 5 || d.height < 5))) {
        _say(problems, "block %zu (%s) is of %u x %u pixels; 5 x 5 to 4096 x 4096 are allowed", index, what,
             d.width, d.height);
        return;
    }
    uint64_t need;
    if (block.type == TQ_BLK_DRNU_IMAGES) {
        if (d.images < 2)
            _say(problems, "block %zu has %d reference images; a line takes two", index, d.images);
        if (hdr.ver < 150 && d.height % 2)
            _say(problems, "block %zu has %u rows, which don't make pairs", index, d.height);
        need = (20 + 2 * pixels) * static_cast<uint64_t>(std::max(0, d.images));
    } else {
        need = 48 + 8 * pixels;
    }
    if (d.payload_size < need) {
        if (block.whole)
            _say(problems, "block %zu (%s) needs %llu bytes for what its head says and holds %zu", index,
                 what, static_cast<unsigned long long>(need), d.payload_size);
        return;
    }
    if (d.payload_size > need)
        _say(remarks, "block %zu (%s) holds %llu bytes more than its head says", index, what,
             static_cast<unsigned long long>(d.payload_size - need));
    if (block.type == TQ_BLK_DRNU_RESULT) {
        size_t bad = 0;
        for (uint64_t i = 0; i < 2 * pixels; i++)
            bad += !std::isfinite(at<float>(d.payload + 48 + 4 * i));
        if (bad)
            _say(remarks, "block %zu (%s) holds %zu values that are no numbers", index, what, bad);
    }
}

// The three models that the library fits: CB, IB, and both with the frame rate.
static std::vector<float> _fit_samples(const std::vector<CalibTempSample> &samples)
{
    const size_t n = samples.size();
    std::vector<float> phase, x(3 * n);
    for (size_t i = 0; i < n; i++) {
        phase.push_back(static_cast<float>(samples[i].phase));
        x[i] = samples[i].tcb;
        x[n + i] = samples[i].tib;
        x[2 * n + i] = samples[i].fps;
    }
    const auto fit = [&](const float *columns, int k) {
        std::vector<float> c(static_cast<size_t>(k));
        tq_math_multiple_linear_fit_outlier_remove_f32(columns, phase.data(), nullptr, static_cast<int>(n),
                                                       c.data(), k, nullptr, nullptr, nullptr, 10, 0.03f,
                                                       0.999f);
        return c;
    };
    const std::vector<float> cb = fit(x.data(), 2), ib = fit(&x[n], 2), all = fit(x.data(), 4);
    return {cb[1] * 10, ib[1] * 10, all[1] * 10, all[2] * 10, all[3] * 10};
}

void CalibFile::read_temp(CalibBlock &block, size_t index)
{
    const char *what = calib_type_name(block.type);
    if (block.size < 30) {
        _say(problems, "block %zu (%s) has %zu bytes, its head alone needs 30", index, what, block.size);
        return;
    }
    CalibTemp &t = block.temp;
    t.freq = at<uint32_t>(block.offset + 7);
    t.tenv = at<int16_t>(block.offset + 15);
    const uint16_t count = at<uint16_t>(block.offset + 17);
    t.fps = at<uint8_t>(block.offset + 19);
    t.intg = at<uint16_t>(block.offset + 28);
    const bool samples = block.type == TQ_BLK_TEMP_SAMPLES;
    const size_t unit = samples ? sizeof(CalibTempSample) : sizeof(float);
    if (block.size != 30 + count * unit) {
        _say(problems, "block %zu (%s) states %u values of %zu bytes and holds %zu bytes", index, what, count,
             unit, block.size - 30);
        return;
    }
    for (size_t i = 0; i < count; i++) {
        if (samples)
            t.samples.push_back(at<CalibTempSample>(block.offset + 30 + i * unit));
        else
            t.coefs.push_back(at<float>(block.offset + 30 + i * unit));
    }
    if (t.freq == 0)
        _say(remarks, "block %zu (%s) has the frequency 0 and will be passed over", index, what);
    if (samples && count < 2) {
        _say(remarks, "block %zu (%s) has %u samples, too few for a model", index, what, count);
        return;
    }
    if (samples)
        t.coefs = _fit_samples(t.samples);
    else if (count <= 3)
        _say(remarks, "block %zu (%s) has %u values and will be passed over; four are the least", index, what,
             count);
    if (t.coefs.size() < 4)
        return;
    const float fps = t.coefs.size() > 4 ? t.coefs[4] : 0;
    if (!std::all_of(t.coefs.begin(), t.coefs.end(), [](float v) { return std::isfinite(v); }))
        _say(remarks, "block %zu (%s) gives coefficients that are no numbers; a simpler model replaces them",
             index, what);
    else if (t.coefs[0] > 1000 || t.coefs[1] > 1000)
        _say(remarks, "block %zu (%s) gives %g and %g a degree; above 1000 the usual model replaces them",
             index, what, t.coefs[0], t.coefs[1]);
    else if (t.coefs[2] == 0 || t.coefs[3] == 0 || fps == 0)
        _say(remarks, "block %zu (%s) lacks one of three causes; the CB temperature alone will count", index,
             what);
}

void CalibFile::read_lens(CalibBlock &block, size_t index)
{
    tq_lens_bin_t &l = block.lens;
    if (block.size < sizeof l) {
        _say(remarks, "block %zu (lens) has %zu bytes, its head alone needs %zu; it will be passed over",
             index, block.size, sizeof l);
        return;
    }
    l = at<tq_lens_bin_t>(block.offset);
    const uint64_t pixels = uint64_t{l.img_w} * l.img_h, data = 4 * (uint64_t{l.n_grad} + l.n_reflect);
    if ((uint64_t{l.n_grad} + 1) / 2 > pixels || (uint64_t{l.n_reflect} + 3) / 4 > pixels ||
        data + 225 != block.size)
        _say(remarks,
             "block %zu (lens) states %u and %u values for %u x %u pixels in %zu bytes; it will be passed "
             "over",
             index, l.n_grad, l.n_reflect, l.img_w, l.img_h, block.size);
}
