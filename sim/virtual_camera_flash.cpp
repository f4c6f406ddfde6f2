#include "virtual_camera_flash.h"

#include "virtual_camera.h"

#include <algorithm>
#include <cstring>

namespace {

enum : uint8_t { ACK_READY = 1, ACK_ANNOUNCED = 3, ACK_ERASING = 4 };

constexpr uint32_t IMAGE_MAX = 104857600, PACKET_MAX = 65530, PACKET_HEAD = 6, PACK_HEAD = 18;
constexpr uint8_t TYPE_ERASE_ONLY = 255;

uint32_t _u16(const uint8_t *p)
{
    return p[0] | p[1] << 8;
}

uint32_t _u32(const uint8_t *p)
{
    return _u16(p) | _u16(p + 2) << 16;
}

void _put(uint8_t *p, uint32_t value, int bytes)
{
    for (int b = 0; b < bytes; b++)
        p[b] = static_cast<uint8_t>(value >> 8 * b);
}

// One whole packet: CRC, length, payload.
void _take_packet(vcam_flash_t *flash, const uint8_t *packet, uint32_t len)
{
    const uint8_t *payload = packet + PACKET_HEAD;
    if (flash->status != ACK_READY || _u16(packet) != vcam_crc16(payload, len) ||
        flash->bytes.size() + len > flash->size)
        return;
    flash->bytes.insert(flash->bytes.end(), payload, payload + len);
    flash->num++;
    if (flash->bytes.size() == flash->size) {
        flash->images[flash->type] = {flash->version, std::move(flash->bytes)};
        flash->bytes.clear();
        flash->size = 0; // takes no more
    }
}

} // namespace

uint16_t vcam_crc16(const uint8_t *data, size_t len)
{
    uint32_t crc = 0;
    for (size_t i = 0; i < len; i++) {
        crc ^= static_cast<uint32_t>(data[i]) << 8;
        for (int bit = 0; bit < 8; bit++)
            crc = crc << 1 ^ ((crc & 0x8000) != 0 ? 0x1021 : 0);
    }
    return static_cast<uint16_t>(crc);
}

std::vector<uint8_t> vcam_pack_of_file(const sim_identity_t &id, const std::vector<uint8_t> &file)
{
    const size_t used = PACK_HEAD + file.size();
    std::vector<uint8_t> pack((used + VCAM_SLICE_BYTES - 1) / VCAM_SLICE_BYTES * VCAM_SLICE_BYTES, 1);
    pack[0] = 1;
    pack[1] = 0;
    _put(&pack[2], static_cast<uint32_t>(id.cid) << 16 | id.wid, 4);
    _put(&pack[6], file.size() >= 1192 ? _u32(&file[1188]) : 1, 4); // the file's own time stamp
    _put(&pack[10], static_cast<uint32_t>(pack.size()), 4);
    _put(&pack[14], static_cast<uint32_t>(file.size()), 4);
    std::copy(file.begin(), file.end(), pack.begin() + PACK_HEAD);
    return pack;
}

void vcam_flash_init(vcam_flash_t *flash, const std::vector<uint8_t> &pack)
{
    *flash = {};
    flash->polls = 2;
    if (!pack.empty())
        flash->images[VCAM_FLASH_CALIB] = {0, pack};
}

void vcam_flash_set_polls(vcam_flash_t *flash, uint32_t polls)
{
    flash->polls = polls;
}

std::string vcam_flash_command(vcam_flash_t *flash, uint16_t action, const uint8_t *data, uint32_t len,
                               bool repeat, uint16_t firmware, std::vector<uint8_t> *reply)
{
    const uint32_t due = action == VCAM_FLASH_INFO                                    ? 16
                         : action == VCAM_FLASH_ANNOUNCE || action == VCAM_FLASH_READ ? 12
                         : action == VCAM_FLASH_SHORT_ACK                             ? 9
                         : action == VCAM_FLASH_ACK || action == VCAM_FLASH_ERASE     ? 13
                                                                                      : 0;
    if (due == 0)
        return "unknown data action";
    if (len != due)
        return "wrong length of data action";
    reply->assign(due, 0);
    switch (action) {
    case VCAM_FLASH_INFO: {
        const auto image = flash->images.find(data[0]);
        const bool held = image != flash->images.end();
        flash->read_type = data[0];
        flash->read_at = 0;
        (*reply)[0] = data[0];
        _put(&(*reply)[2], data[0] == VCAM_FLASH_FIRMWARE ? firmware : vcam_flash_version(*flash, data[0]),
             2);
        _put(&(*reply)[4], held ? static_cast<uint32_t>(image->second.bytes.size()) : 0xFFFFFFFF, 4);
        _put(&(*reply)[8], 0x100000u * data[0], 4);
        break;
    }
    case VCAM_FLASH_ANNOUNCE: {
        const uint32_t size = _u32(data + 4);
        if (size == 0 || size > IMAGE_MAX)
            return "image size not supported";
        flash->type = data[0];
        flash->version = static_cast<uint16_t>(_u16(data + 2));
        flash->size = size;
        flash->num = 0;
        flash->status = ACK_ANNOUNCED;
        break;
    }
    case VCAM_FLASH_ERASE:
        if (flash->status != ACK_ANNOUNCED)
            return "nothing was announced";
        flash->images.erase(data[0] == TYPE_ERASE_ONLY ? flash->type : data[0]);
        flash->bytes.clear();
        flash->packet.clear();
        flash->polls_left = flash->polls;
        flash->status = ACK_ERASING;
        break;
    case VCAM_FLASH_ACK:
    case VCAM_FLASH_SHORT_ACK:
        flash->packet.clear(); // what the host asks about is over: a packet that lacks a part is lost
        if (flash->status == ACK_ERASING) {
            if (flash->polls_left == 0)
                flash->status = ACK_READY;
            else
                flash->polls_left--;
        }
        _put(&(*reply)[0], repeat && flash->num > 0 ? flash->num - 1 : flash->num, 4);
        (*reply)[4] = flash->status;
        break;
    default: { // what the host reads of a block are its first 12 bytes
        const auto image = flash->images.find(flash->read_type);
        if (image != flash->images.end() && flash->read_at < image->second.bytes.size()) {
            const size_t n = std::min<size_t>(due, image->second.bytes.size() - flash->read_at);
            memcpy(reply->data(), image->second.bytes.data() + flash->read_at, n);
            flash->read_at += _u32(data + 4);
        }
        break;
    }
    }
    return {};
}

void vcam_flash_write(vcam_flash_t *flash, const uint8_t *data, uint32_t len)
{
    // A transfer may be cut on its way; a packet ends where its length says.
    flash->packet.insert(flash->packet.end(), data, data + len);
    while (flash->packet.size() >= PACKET_HEAD) {
        const uint32_t payload = _u32(&flash->packet[2]);
        if (payload == 0 || payload > PACKET_MAX) {
            flash->packet.clear();
            return;
        }
        if (flash->packet.size() < PACKET_HEAD + payload)
            return;
        _take_packet(flash, flash->packet.data(), payload);
        flash->packet.erase(flash->packet.begin(), flash->packet.begin() + PACKET_HEAD + payload);
    }
}

uint16_t vcam_flash_version(const vcam_flash_t &flash, uint8_t type)
{
    const auto image = flash.images.find(type);
    return image == flash.images.end() ? VCAM_FLASH_NO_VERSION : image->second.version;
}

std::vector<uint8_t> vcam_flash_image(const vcam_flash_t &flash, uint8_t type)
{
    const auto image = flash.images.find(type);
    return image == flash.images.end() ? std::vector<uint8_t>() : image->second.bytes;
}

const std::vector<uint8_t> &vcam_flash_pack(const vcam_flash_t &flash)
{
    static const std::vector<uint8_t> none;
    const auto image = flash.images.find(VCAM_FLASH_CALIB);
    return image == flash.images.end() ? none : image->second.bytes;
}

uint8_t vcam_flash_pack_head(const vcam_flash_t &flash, uint8_t head[18])
{
    const std::vector<uint8_t> &pack = vcam_flash_pack(flash);
    memset(head, 0, PACK_HEAD);
    if (pack.size() >= PACK_HEAD)
        memcpy(head, pack.data(), PACK_HEAD);
    return PACK_HEAD;
}
