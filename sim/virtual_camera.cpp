#include "virtual_camera.h"

#include "tq_stream.h"
#include "virtual_camera_flash.h"
#include "virtual_camera_params.h"

#include <algorithm>
#include <deque>
#include <map>
#include <mutex>

namespace {

enum : uint8_t { REQ_OUT = 0x22, REQ_IN = 0xA2 };
enum : uint8_t { CMD_STATUS = 0xB0, CMD_DEVICE = 0xC0, CMD_REG = 0xC2, CMD_DATA = 0xCC };
enum : uint8_t { DEV_RESET = 0, DEV_PARAM_SET = 3, DEV_PARAM_GET = 4 };
enum : uint8_t { REG_WRITE = 0, REG_READ = 1, CAP_START = 4, CAP_STOP = 5 };
enum : uint8_t { STATUS_DONE = 0, STATUS_BUSY = 0xFE, STATUS_FAILED = 0xFF };
enum { TARGET_USB = 3, MODE_DATA_UP = 9, FORMAT_SLICE = 171 };

constexpr uint32_t STATUS_BYTES = 60, PARAM_BYTES = 20, REG_HEAD_BYTES = 7;
constexpr size_t REGS_MAX = 4096;       // registers that were ever written
constexpr uint64_t SLICE_GAP_US = 2000; // between two slices of the calibration pack
constexpr uint64_t LATE_FRAMES = 4;     // due frames that the camera's memory holds back

uint32_t _get_u32(const uint8_t *p)
{
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

} // namespace

struct vcam_t {
    std::mutex lock;
    vcam_cfg_t cfg;
    sim_source_ptr_t source;
    sim_identity_t id;
    vcam_params_t params;
    sim_config_t applied = {}; // the source works by these settings
    vcam_flash_t flash;
    std::map<uint32_t, uint32_t> regs; // type << 24 | address; page and register of the chip's pages apart
    vcam_plug_t plug = VCAM_PLUGGED;
    vcam_stats_t stats = {};
    sim_rng_t rng = {};

    // The last command.
    uint8_t cmd_type = 0, cmd_value = 0;
    std::string failure; // empty: it was done
    uint32_t busy_reads = 0;
    std::vector<uint8_t> reply; // what its read phase gets

    // The stream.
    bool capturing = false, halted_in = false, halted_out = false;
    tq_ostream_t os = {};
    std::deque<std::vector<uint8_t>> packets; // each ends a transfer of the host
    size_t packet_at = 0;                     // bytes of the first that are sent
    uint64_t next_frame_us = 0, paused_until_us = 0;
    uint32_t frame_no = 0, slice = 0;
};

namespace {

bool _fires(vcam_t *cam, vcam_fault_kind_t kind, uint32_t command = 0)
{
    return vcam_fault_fires(&cam->cfg.faults, kind, command);
}

uint32_t _fault_value(const vcam_t *cam, vcam_fault_kind_t kind)
{
    return cam->cfg.faults.fault[kind].value;
}

void _stop_capture(vcam_t *cam)
{
    cam->capturing = false;
    cam->packets.clear();
    cam->packet_at = 0;
}

// The source gets new settings only where they change its frames: it may have frames ready.
void _apply_params(vcam_t *cam)
{
    const sim_config_t cfg = vcam_params_config(cam->params, cam->cfg.sim);
    if (!sim_config_same(cfg, cam->applied))
        cam->source->configure(cam->source->self, cfg);
    cam->applied = cfg;
}

// What a reset of the board leaves: the settings of the start, firmware as last written.
void _reset_board(vcam_t *cam)
{
    _stop_capture(cam);
    cam->halted_in = cam->halted_out = false;
    cam->regs.clear();
    if (vcam_flash_version(cam->flash, VCAM_FLASH_FIRMWARE) != VCAM_FLASH_NO_VERSION)
        cam->id.software = vcam_flash_version(cam->flash, VCAM_FLASH_FIRMWARE);
    vcam_params_init(&cam->params, cam->cfg.sim, cam->id);
    _apply_params(cam);
    cam->stats.resets++;
}

// ---- Commands -----------------------------------------------------------------------------------------

std::string _param_set(vcam_t *cam, const uint8_t *data, uint32_t len)
{
    if (len == 0 || len % PARAM_BYTES != 0 || len > 2 * PARAM_BYTES)
        return "wrong length of parameters";
    for (uint32_t at = 0; at < len; at += PARAM_BYTES) {
        const std::string wrong =
            vcam_param_set(&cam->params, cam->cfg.sim, data[at], data + at + 2, data[at + 1]);
        if (!wrong.empty())
            return wrong;
    }
    _apply_params(cam);
    return {};
}

std::string _param_get(vcam_t *cam, const uint8_t *data, uint32_t len)
{
    if (len == 0 || len % PARAM_BYTES != 0 || len > 2 * PARAM_BYTES)
        return "wrong length of parameters";
    cam->reply.assign(len, 0);
    for (uint32_t at = 0; at < len; at += PARAM_BYTES) {
        uint8_t *out = cam->reply.data() + at;
        out[0] = data[at];
        if (data[at] == VCAM_PARAM_PACK)
            out[1] = vcam_flash_pack_head(cam->flash, out + 2);
        else
            out[1] = vcam_param_get(cam->params, data[at], out + 2);
    }
    return {};
}

uint32_t _reg_key(const vcam_t *cam, uint8_t type, uint32_t addr)
{
    // Register 17 of the sensor chooses a page, register 18 shows it.
    const auto page = cam->regs.find(static_cast<uint32_t>(type) << 24 | 17);
    const uint32_t at =
        addr == 18 && page != cam->regs.end() ? 0x10000 + (page->second & 0xFF) : addr & 0xFFFF;
    return static_cast<uint32_t>(type) << 24 | at;
}

std::string _registers(vcam_t *cam, bool write, const uint8_t *data, uint32_t len)
{
    if (len < REG_HEAD_BYTES)
        return "wrong length of registers";
    const uint8_t type = data[0];
    const uint32_t first = _get_u32(data + 1), bytes = data[5] | data[6] << 8;
    if (bytes % 4 != 0 || first > 0xFFFF || first + bytes / 4 > 0x10000 ||
        (write && len - REG_HEAD_BYTES != bytes))
        return "wrong register range";
    cam->reply.assign(write ? 0 : bytes, 0);
    for (uint32_t i = 0; i < bytes / 4; i++) {
        const uint32_t key = _reg_key(cam, type, first + i);
        if (write) {
            if (cam->regs.size() >= REGS_MAX && cam->regs.count(key) == 0)
                return "no such register";
            cam->regs[key] = _get_u32(data + REG_HEAD_BYTES + 4 * i);
            continue;
        }
        const auto found = cam->regs.find(key);
        uint32_t value = found == cam->regs.end() ? 0 : found->second;
        if ((key & 0xFFFFFF) == 0x10000 + 250) // the chip's variant
            value = cam->cfg.sim.camera->sample_shift != 0 ? 4 : 0;
        for (int b = 0; b < 4; b++)
            cam->reply[4 * i + b] = static_cast<uint8_t>(value >> 8 * b);
    }
    return {};
}

std::string _start_capture(vcam_t *cam, uint32_t len, uint64_t now_us)
{
    if (len != 4)
        return "wrong length of capture start";
    _stop_capture(cam);
    tq_ostream_reset(&cam->os);
    cam->os.cfg.cksum = cam->cfg.checksum;
    cam->capturing = true;
    cam->slice = 0;
    cam->frame_no = 0;
    cam->next_frame_us = now_us;
    cam->paused_until_us = 0;
    cam->stats.captures++;
    return {};
}

std::string _execute(vcam_t *cam, uint8_t type, uint16_t value, const uint8_t *data, uint32_t len,
                     uint64_t now_us)
{
    cam->reply.clear();
    if (type == CMD_DEVICE && value == DEV_RESET && len == 4) {
        _reset_board(cam);
        if (_get_u32(data) == TARGET_USB)
            cam->plug = VCAM_RESETTING;
        return {};
    }
    if (type == CMD_DEVICE && value == DEV_PARAM_SET)
        return _param_set(cam, data, len);
    if (type == CMD_DEVICE && value == DEV_PARAM_GET)
        return _param_get(cam, data, len);
    if (type == CMD_REG && (value == REG_WRITE || value == REG_READ))
        return _registers(cam, value == REG_WRITE, data, len);
    if (type == CMD_REG && value == CAP_START)
        return _start_capture(cam, len, now_us);
    if (type == CMD_REG && value == CAP_STOP) {
        _stop_capture(cam);
        return {};
    }
    if (type == CMD_DATA) {
        if (value == VCAM_FLASH_ERASE)
            vcam_flash_set_polls(&cam->flash,
                                 _fires(cam, VCAM_ERASE_POLLS) ? _fault_value(cam, VCAM_ERASE_POLLS) : 2);
        const bool repeat = value == VCAM_FLASH_ACK && _fires(cam, VCAM_REPEAT_ACK);
        return vcam_flash_command(&cam->flash, value, data, len, repeat, cam->id.software, &cam->reply);
    }
    return "unknown command";
}

uint32_t _status(vcam_t *cam, uint8_t *out, uint32_t len)
{
    uint8_t record[STATUS_BYTES] = {STATUS_DONE, cam->cmd_type, cam->cmd_value};
    if (cam->busy_reads > 0) {
        cam->busy_reads--;
        record[0] = STATUS_BUSY;
    } else if (!cam->failure.empty()) {
        record[0] = STATUS_FAILED;
        cam->failure.copy(reinterpret_cast<char *>(record + 3), STATUS_BYTES - 4);
    }
    if (_fires(cam, VCAM_OTHER_STATUS))
        record[2] ^= 1;
    const uint32_t n = std::min(len, STATUS_BYTES);
    std::copy_n(record, n, out);
    return n;
}

} // namespace

vcam_reply_t vcam_control(vcam_t *cam, const uint8_t setup[8], uint8_t *data, uint64_t now_us)
{
    const std::lock_guard<std::mutex> guard(cam->lock);
    const uint8_t request = setup[0], type = setup[1];
    const uint16_t value = static_cast<uint16_t>(setup[2] | setup[3] << 8);
    const uint32_t len = setup[6] | setup[7] << 8;
    if (cam->plug != VCAM_PLUGGED)
        return {VCAM_GONE, 0, 0};
    if (request == REQ_IN && type == CMD_STATUS && value == 0)
        return {VCAM_OK, _status(cam, data, len), 0};
    if (request != REQ_OUT && request != REQ_IN)
        return {VCAM_STALL, 0, 0};

    const uint32_t command = static_cast<uint32_t>(type) << 8 | (value & 0xFF);
    if (_fires(cam, VCAM_UNPLUG_CMD, command)) {
        cam->plug = VCAM_PULLED;
        return {VCAM_GONE, 0, 0};
    }
    if (_fires(cam, VCAM_STALL_CMD, command))
        return {VCAM_STALL, 0, 0};
    if (_fires(cam, VCAM_HANG_CMD, command))
        return {VCAM_HANG, 0, 0};
    vcam_reply_t answer = {VCAM_OK, len, 0};
    if (request == REQ_OUT) {
        cam->cmd_type = type;
        cam->cmd_value = static_cast<uint8_t>(value);
        cam->failure = _fires(cam, VCAM_FAIL_CMD, command) ? "the camera was told to fail"
                                                           : _execute(cam, type, value, data, len, now_us);
        if (_fires(cam, VCAM_BUSY, command))
            cam->busy_reads = _fault_value(cam, VCAM_BUSY);
    } else {
        if (cam->cmd_type != type || cam->cmd_value != static_cast<uint8_t>(value) || !cam->failure.empty())
            return {VCAM_STALL, 0, 0};
        answer.actual = static_cast<uint32_t>(std::min<size_t>(len, cam->reply.size()));
        std::copy_n(cam->reply.begin(), answer.actual, data);
    }
    if (_fires(cam, VCAM_SHORT_CMD, command) && answer.actual > 0)
        answer.actual--;
    if (_fires(cam, VCAM_SLOW_CMD, command))
        answer.delay_us = _fault_value(cam, VCAM_SLOW_CMD) * 1000;
    return answer;
}

// ---- The stream ---------------------------------------------------------------------------------------

namespace {

// One packet, with what goes wrong with it.
void _add_packet(vcam_t *cam, const tq_frame_hdr_t &frame, const uint8_t *data, uint32_t len,
                 uint32_t meta_len)
{
    tq_stream_hdr_t hdr = {};
    tq_ostream_mkhdr(&cam->os, &hdr, &frame, data, static_cast<int32_t>(len), static_cast<int32_t>(meta_len));
    if (_fires(cam, VCAM_LOSE_PACKET))
        return;
    if (_fires(cam, VCAM_BAD_CHECKSUM)) {
        hdr.frame.aux ^= 1;
        hdr.hdr_hash = tq_stream_hash16(&hdr, sizeof hdr - 2, 0);
    }
    if (_fires(cam, VCAM_BAD_HASH))
        hdr.hdr_hash ^= 1;
    std::vector<uint8_t> packet;
    if (_fires(cam, VCAM_JUNK)) {
        packet.resize(std::min(_fault_value(cam, VCAM_JUNK), 1u << 20));
        for (uint8_t &byte : packet)
            byte = static_cast<uint8_t>(sim_rng_next(cam->rng));
    }
    const uint8_t *head = reinterpret_cast<const uint8_t *>(&hdr);
    packet.insert(packet.end(), head, head + sizeof hdr);
    packet.insert(packet.end(), data, data + len);
    if (_fires(cam, VCAM_BIT_ERROR))
        packet[packet.size() - len + _fault_value(cam, VCAM_BIT_ERROR) % len] ^= 0x10;
    cam->packets.push_back(std::move(packet));
}

void _add_frame(vcam_t *cam, const tq_frame_hdr_t &frame, const uint8_t *data, size_t len, uint32_t meta_len)
{
    const size_t end = _fires(cam, VCAM_CUT_FRAME) ? len / 2 : len;
    for (size_t at = 0; at < end; at += cam->cfg.packet_bytes)
        _add_packet(cam, frame, data + at,
                    static_cast<uint32_t>(std::min<size_t>(cam->cfg.packet_bytes, end - at)), meta_len);
    cam->stats.frames++;
}

bool _slice_left(const vcam_t *cam)
{
    return vcam_flash_pack(cam->flash).size() >= (size_t{cam->slice} + 1) * VCAM_SLICE_BYTES;
}

// A slice of the calibration pack, in upload mode.
void _make_slice(vcam_t *cam, uint64_t now_us)
{
    if (now_us < cam->next_frame_us || !_slice_left(cam))
        return;
    const uint8_t *bytes = vcam_flash_pack(cam->flash).data() + size_t{cam->slice} * VCAM_SLICE_BYTES;
    tq_frame_hdr_t hdr = {};
    hdr.frame_len = VCAM_SLICE_BYTES;
    hdr.frame_idx = static_cast<uint16_t>(cam->slice++);
    hdr.frame_fmt = FORMAT_SLICE;
    _add_frame(cam, hdr, bytes, VCAM_SLICE_BYTES, 0);
    cam->next_frame_us = now_us + SLICE_GAP_US;
}

void _make_frame(vcam_t *cam, uint64_t now_us)
{
    if (now_us < cam->next_frame_us || !cam->source->ready(cam->source->self))
        return;
    const uint64_t period = 1000000 / vcam_params_fps(cam->params);
    const uint64_t due = (now_us - cam->next_frame_us) / period; // besides the one that is made now
    if (due >= LATE_FRAMES) {
        cam->next_frame_us += due * period;
        cam->frame_no += static_cast<uint32_t>(due);
        cam->stats.frames_skipped += due;
    }
    cam->next_frame_us += period;
    sim_frame_t f = {};
    if (!cam->source->next(cam->source->self, &f))
        return;
    tq_frame_hdr_t hdr = {};
    hdr.frame_len = static_cast<uint32_t>(f.data.size());
    hdr.frame_idx = static_cast<uint16_t>(cam->frame_no++);
    hdr.frame_fmt = static_cast<uint16_t>(f.format);
    hdr.width = static_cast<uint16_t>(f.width);
    hdr.height = static_cast<uint16_t>(f.height);
    hdr.temp_cb = f.temp_cb;
    hdr.temp_ib = f.temp_ib;
    hdr.time = sim_frame_time_word(f);
    hdr.aux = 0;
    _add_frame(cam, hdr, f.data.data(), f.data.size(), f.meta_size);
}

} // namespace

vcam_reply_t vcam_bulk_in(vcam_t *cam, uint8_t *data, uint32_t len, uint64_t now_us)
{
    const std::lock_guard<std::mutex> guard(cam->lock);
    if (cam->plug != VCAM_PLUGGED)
        return {VCAM_GONE, 0, 0};
    if (!cam->capturing || cam->halted_in || len == 0 || now_us < cam->paused_until_us)
        return {VCAM_NOT_YET, 0, 0};
    if (cam->packets.empty()) {
        if (vcam_params_mode(cam->params) == MODE_DATA_UP)
            _make_slice(cam, now_us);
        else
            _make_frame(cam, now_us);
    }
    if (cam->packets.empty())
        return {VCAM_NOT_YET, 0, 0};

    if (_fires(cam, VCAM_UNPLUG_IN)) {
        cam->plug = VCAM_PULLED;
        return {VCAM_GONE, 0, 0};
    }
    if (_fires(cam, VCAM_STALL_IN)) {
        cam->halted_in = true;
        return {VCAM_STALL, 0, 0};
    }
    if (_fires(cam, VCAM_EMPTY_IN))
        return {VCAM_OK, 0, 0};
    const std::vector<uint8_t> &packet = cam->packets.front();
    vcam_reply_t answer = {VCAM_OK,
                           static_cast<uint32_t>(std::min<size_t>(len, packet.size() - cam->packet_at)), 0};
    if (_fires(cam, VCAM_PAUSE)) {
        answer.result = VCAM_MORE;
        answer.actual /= 2;
        cam->paused_until_us = now_us + _fault_value(cam, VCAM_PAUSE) * uint64_t{1000};
    }
    if (_fires(cam, VCAM_SHORT_IN))
        answer.actual = std::min(answer.actual, _fault_value(cam, VCAM_SHORT_IN));
    if (_fires(cam, VCAM_LATE_IN))
        answer.delay_us = _fault_value(cam, VCAM_LATE_IN) * 1000;
    std::copy_n(packet.begin() + static_cast<ptrdiff_t>(cam->packet_at), answer.actual, data);
    cam->packet_at += answer.actual;
    cam->stats.bytes += answer.actual;
    if (cam->packet_at == packet.size()) {
        cam->packets.pop_front();
        cam->packet_at = 0;
    }
    return answer;
}

uint64_t vcam_wake_us(vcam_t *cam, uint64_t now_us)
{
    const std::lock_guard<std::mutex> guard(cam->lock);
    constexpr uint64_t far = 100000;
    if (!cam->capturing || cam->halted_in)
        return now_us + far;
    if (now_us < cam->paused_until_us)
        return std::min(cam->paused_until_us, now_us + far);
    if (!cam->packets.empty())
        return now_us;
    if (vcam_params_mode(cam->params) == MODE_DATA_UP && !_slice_left(cam))
        return now_us + far;
    if (cam->next_frame_us <= now_us) // due: at once, or when the source has it
        return cam->source->ready(cam->source->self) ? now_us : now_us + 1000;
    return std::min(cam->next_frame_us, now_us + far);
}

// ---- Data transfer ------------------------------------------------------------------------------------

vcam_reply_t vcam_bulk_out(vcam_t *cam, const uint8_t *data, uint32_t len, uint64_t)
{
    const std::lock_guard<std::mutex> guard(cam->lock);
    if (cam->plug == VCAM_PLUGGED && _fires(cam, VCAM_UNPLUG_OUT))
        cam->plug = VCAM_PULLED;
    if (cam->plug != VCAM_PLUGGED)
        return {VCAM_GONE, 0, 0};
    if (_fires(cam, VCAM_STALL_OUT))
        cam->halted_out = true;
    if (cam->halted_out)
        return {VCAM_STALL, 0, 0};
    if (_fires(cam, VCAM_HANG_OUT))
        return {VCAM_HANG, 0, 0};
    if (!_fires(cam, VCAM_LOSE_OUT))
        vcam_flash_write(&cam->flash, data, len);
    return {VCAM_OK, len, 0};
}

void vcam_clear_halt(vcam_t *cam, bool in)
{
    const std::lock_guard<std::mutex> guard(cam->lock);
    (in ? cam->halted_in : cam->halted_out) = false;
}

// ---- Life ---------------------------------------------------------------------------------------------

vcam_cfg_t vcam_config_default(const sim_config_t &sim)
{
    vcam_cfg_t cfg = {};
    cfg.sim = sim;
    cfg.packet_bytes = VCAM_PACKET_BYTES;
    return cfg;
}

vcam_t *vcam_create(const vcam_cfg_t &cfg, sim_source_ptr_t source)
{
    vcam_t *cam = new vcam_t();
    cam->cfg = cfg;
    cam->source = std::move(source);
    cam->applied = cfg.sim;
    cam->id = sim_identity(cfg.sim);
    cam->rng = sim_rng_stream(cfg.sim.seed, 5, 0);
    vcam_flash_init(&cam->flash, cfg.pack);
    _reset_board(cam);
    cam->stats = {};
    return cam;
}

void vcam_destroy(vcam_t *cam)
{
    delete cam;
}

vcam_plug_t vcam_plug_state(vcam_t *cam)
{
    const std::lock_guard<std::mutex> guard(cam->lock);
    return cam->plug;
}

void vcam_plug_in(vcam_t *cam)
{
    const std::lock_guard<std::mutex> guard(cam->lock);
    _reset_board(cam);
    cam->plug = VCAM_PLUGGED;
}

void vcam_pull_out(vcam_t *cam)
{
    const std::lock_guard<std::mutex> guard(cam->lock);
    cam->plug = VCAM_PULLED;
}

vcam_stats_t vcam_stats(vcam_t *cam)
{
    const std::lock_guard<std::mutex> guard(cam->lock);
    return cam->stats;
}

std::vector<uint8_t> vcam_image(vcam_t *cam, uint8_t type)
{
    const std::lock_guard<std::mutex> guard(cam->lock);
    return vcam_flash_image(cam->flash, type);
}
