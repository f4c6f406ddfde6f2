// Writes an image file to the camera's flash: version check, declaration, erase, then packets, each
// acknowledged.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

#include "log/log.h"
#include "transfer/crc16.h"
#include "transfer/data_actions.h"

constexpr uint32_t IMAGE_MAX = 104857600;
constexpr uint16_t VERSION_UNSET = 65000; // and above: the device holds nothing
constexpr uint32_t PACKET_BYTES = 65530, PACKET_BYTES_ETH = 1016;
constexpr uint32_t PACKET_HEADER = 6; // u16 CRC and u32 length of the payload
constexpr int RETRIES = 3;

struct FileClose {
    void operator()(FILE *file) const { std::fclose(file); }
};
struct Free {
    void operator()(uint8_t *memory) const { std::free(memory); }
};
using file_ptr = std::unique_ptr<FILE, FileClose>;
using bytes_ptr = std::unique_ptr<uint8_t, Free>;

static const char *const _fn = "tqcam_bin_data_write"; // log lines of every step below carry this name

static int _upgrade_failed(int result)
{
    LOG_AS(6, "ERR", _fn, "[%s]Upgrade failed!\n");
    return result;
}

// Loads the whole image. Returns false with its line logged; size 0 with true means that there was no memory.
static bool _load_image(const char *path, bytes_ptr &image, uint32_t &size)
{
    file_ptr file(std::fopen(path, "rb"));
    if (!file) {
        LOG_AS(6, "ERR", _fn, "[%s]File open failed:%s\n", path);
        return false;
    }
    const long length = std::fseek(file.get(), 0, SEEK_END) == 0 ? std::ftell(file.get()) : -1;
    if (length <= 0 || length > static_cast<long>(IMAGE_MAX)) {
        LOG_AS(6, "ERR", _fn, "[%s]Wrong File size:%d\n",
               static_cast<int>(std::min(length, long{INT32_MAX})));
        _upgrade_failed(-1);
        return false;
    }
    size = static_cast<uint32_t>(length);
    image.reset(static_cast<uint8_t *>(std::malloc(size)));
    if (!image) {
        size = 0;
        return true;
    }
    std::rewind(file.get());
    if (std::fread(image.get(), 1, size, file.get()) != size) {
        LOG_AS(6, "ERR", _fn, "[%s]Firmware image file loading failed.\n");
        return false;
    }
    return true;
}

// Sends one packet and has it acknowledged. Returns 0 when the device took it, otherwise what a failed pass
// costs of the retries; result gets the outcome of the last exchange.
static int _send_packet(tqcam_ll_dev_t *dev, const uint8_t *packet, uint32_t bytes, uint32_t index,
                        int &result)
{
    result = tqcam_ll_tx_data(dev, packet, bytes);
    if (result <= 0 || static_cast<uint32_t>(result) != bytes) {
        if (result < 0)
            LOG_AS(6, "ERR", _fn, "[%s]tx data failed\n");
        LOG_AS(6, "ERR", _fn, "[%s]Data transfer failed D.\n");
        return 1;
    }
    al_ack_t ack = {};
    result = al_data_read_ack(dev, &ack);
    LOG_AS(0, "TRC", _fn, "[%s]ret = %d status = %d  num = %d, index:%d\n", result, ack.status, ack.num,
           index);
    if (result < 0) {
        LOG_AS(6, "ERR", _fn, "[%s]Data transfer failed C.\n");
        return 1;
    }
    if (ack.num == index + 1)
        return 0;
    if (ack.num != index) {
        LOG_AS(6, "ERR", _fn, "[%s]Data transfer failed B.\n");
        return 1;
    }
    LOG_AS(6, "ERR", _fn, "[%s]Data transfer failed A.indx:%d, :%d, retry..\n", index, ack.num);
    result = al_data_read_ack(dev, &ack);
    usleep(5000);
    return result >= 0 && ack.num == index + 1 ? 0 : 2;
}

// Sends all packets. Returns whether the device took every one.
static bool _send_packets(tqcam_ll_dev_t *dev, const uint8_t *image, uint32_t size, uint32_t packet_bytes,
                          int &result)
{
    bytes_ptr packet(static_cast<uint8_t *>(std::malloc(PACKET_HEADER + packet_bytes)));
    if (!packet) {
        result = -1;
        return false;
    }
    const uint32_t count = (size + packet_bytes - 1) / packet_bytes;
    int retries = 0;
    for (uint32_t index = 0; index < count;) {
        const uint32_t at = index * packet_bytes, bytes = std::min(packet_bytes, size - at);
        if (retries > RETRIES)
            return false;
        const uint16_t crc = crc16_xmodem(image + at, bytes);
        std::memcpy(packet.get(), &crc, 2);
        std::memcpy(packet.get() + 2, &bytes, 4);
        std::memcpy(packet.get() + PACKET_HEADER, image + at, bytes);
        const int cost = _send_packet(dev, packet.get(), PACKET_HEADER + bytes, index, result);
        retries = cost == 0 ? 0 : retries + cost;
        index += cost == 0;
    }
    return true;
}

// The device writes its flash behind the last packet; nobody may log over the warning meanwhile.
static int _finish(tqcam_ll_dev_t *dev, uint16_t type, int result)
{
    if (type != AL_TYPE_FIRMWARE && type != AL_TYPE_IMAGE && type != AL_TYPE_CALIB)
        return result;
    if (type == AL_TYPE_FIRMWARE)
        LOG_AS(5, "WRN", _fn, "[%s] * Wait board to reset...\n");
    LOG_AS(5, "WRN", _fn, "[%s]----------------------------------------------------------\n");
    LOG_AS(5, "WRN", _fn, "[%s]!!! DO NOT RESET or POWER OFF the board until return !!!!\n");
    LOG_AS(5, "WRN", _fn, "[%s]----------------------------------------------------------\n");
    tqcam_log_cfg(7, 7, 7);
    if (type == AL_TYPE_FIRMWARE)
        tqcam_ll_dev_reset(dev, 0);
    sleep(type == AL_TYPE_FIRMWARE ? 10 : 7);
    return result;
}

static int _wrong_ack(const al_ack_t &ack)
{
    LOG_AS(6, "ERR", _fn, "[%s]Wrong ACK(NUM:%d,VER:%d)\n", ack.num, ack.status);
    return _upgrade_failed(-1);
}

int tqcam_bin_data_write(tqcam_ll_dev_t *dev, uint16_t type, uint16_t version, uint32_t, const char *path)
{
    if (!dev || !path)
        return -1;
    LOG_TRACE("[%s]name:%s, type:%hu, version:%hu\n", path, type, version);
    bytes_ptr image;
    uint32_t size = 0;
    if (!_load_image(path, image, size))
        return -1;

    const auto type8 = static_cast<uint8_t>(type);
    al_data_info_t info = {};
    al_get_data_info(dev, type8, &info); // a device that doesn't answer counts as version 0
    LOG_DEBUG("[%s]Version:%hu,type:%hu, addr:0x%x,data size:%d\n", info.version, info.type, info.addr,
              info.size);
    if (info.version >= version && info.version < VERSION_UNSET && type != AL_TYPE_CALIB) {
        LOG_ERROR("[%s]Can't upgrade from %d to %d\n", info.version, version);
        return _upgrade_failed(-1);
    }
    LOG_INFO("[%s]Upgrade from v%d to v%d\n", info.version, version);
    al_ack_t ack = {};
    int result = al_data_declare(dev, type8, version, size);
    if (result >= 0)
        result = al_data_read_ack(dev, &ack);
    if (result < 0 || ack.num != 0 || ack.status != AL_STATUS_ACCEPTED)
        return _wrong_ack(ack);

    const uint32_t packet_bytes = dev->address.if_type == TQCAM_IF_ETH ? PACKET_BYTES_ETH : PACKET_BYTES;
    LOG_INFO("[%s] * Erase ...\n");
    if (al_data_erase(dev, type8, size, packet_bytes) < 0) {
        LOG_ERROR("[%s]wait cfm failed.....\n");
        return _upgrade_failed(-1);
    }
    do {
        result = al_data_read_ack(dev, &ack); // fails when the device is gone, which ends the wait
        if (result < 0) {
            LOG_ERROR("[%s]DATA ACK failed\n");
            return _upgrade_failed(result);
        }
    } while (ack.status == AL_STATUS_ERASING);
    LOG_DEBUG("[%s]erase ok,%d\n", ack.status);
    if (type == AL_TYPE_ERASE_ONLY)
        return 1;

    LOG_INFO("[%s] * Write ...\n");
    if (ack.num != 0 || ack.status != AL_STATUS_READY)
        return _wrong_ack(ack);
    if (_send_packets(dev, image.get(), size, packet_bytes, result)) {
        LOG_DEBUG("[%s]Data transfer finished.\n");
        return _finish(dev, type, result);
    }
    // Part of an image in flash is no success, whatever the last exchange said.
    LOG_ERROR("[%s]Data transfer failed.\n");
    return _upgrade_failed(result < 0 ? result : -1);
}
