// Images to and from a camera's memory, against a scripted link.
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "link/link_ops.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "transfer/crc16.h"
#include "transfer/data_actions.h"

static unsigned g_slept;
extern "C" unsigned sleep(unsigned seconds)
{
    g_slept += seconds;
    return 0;
}

namespace {

constexpr al_ack_t FAILS = {0, 0xEE}; // the command that asks for the ack fails

struct FakeCamera {
    uint16_t version = 1;
    uint32_t held = 0xFFFFFFFF; // size that the info record tells
    bool info_fails = false, payload_fails = false, gone_behind_payload = false;
    std::vector<al_ack_t> acks; // in order; beyond them the camera is gone
    size_t next_ack = 0;
    int tx_result = 1; // above 0: all bytes
    std::vector<std::vector<uint8_t>> packets, declared, erased, payloads;
    std::vector<int> resets;
};
FakeCamera cam;

bool fake_cmd(tqcam_ll_dev_t *, uint8_t write, uint8_t type, uint16_t value, void *data, uint32_t len,
              uint32_t)
{
    EXPECT_EQ(type, 0xCC);
    auto *bytes = static_cast<uint8_t *>(data);
    const std::vector<uint8_t> sent(bytes, bytes + len);
    switch (value) {
    case AL_ACTION_INFO:
        EXPECT_EQ(len, 16u);
        std::memcpy(bytes + 2, &cam.version, 2);
        std::memcpy(bytes + 4, &cam.held, 4);
        return !cam.info_fails;
    case AL_ACTION_DECLARE:
        EXPECT_TRUE(write);
        EXPECT_EQ(len, 12u);
        cam.declared.push_back(sent);
        return true;
    case AL_ACTION_ERASE:
        EXPECT_EQ(len, 13u);
        cam.erased.push_back(sent);
        return true;
    case AL_ACTION_ACK: {
        EXPECT_EQ(len, 13u);
        if (cam.next_ack >= cam.acks.size() || cam.acks[cam.next_ack].status == FAILS.status) {
            cam.next_ack++;
            return false;
        }
        const al_ack_t ack = cam.acks[cam.next_ack++];
        std::memcpy(bytes, &ack.num, 4);
        bytes[4] = ack.status;
        return true;
    }
    case AL_ACTION_PAYLOAD:
        EXPECT_EQ(len, 12u);
        cam.payloads.push_back(sent);
        std::memcpy(bytes, "from the cam", 12);
        cam.info_fails = cam.gone_behind_payload;
        return !cam.payload_fails;
    default:
        ADD_FAILURE() << "action " << value;
        return false;
    }
}

int fake_tx(tqcam_ll_dev_t *, const void *data, uint32_t len)
{
    const auto *bytes = static_cast<const uint8_t *>(data);
    cam.packets.emplace_back(bytes, bytes + len);
    return cam.tx_result > 0 ? static_cast<int>(len) : cam.tx_result;
}

bool fake_reset(tqcam_ll_dev_t *, uint8_t target)
{
    cam.resets.push_back(target);
    return true;
}

struct DataWrite : ::testing::Test {
    TempDir dir;
    LogCapture log;
    tqcam_ll_ops_t ops = {};
    tqcam_ll_dev_t dev = {};

    void SetUp() override
    {
        cam = FakeCamera();
        g_slept = 0;
        ops.exe_cmd = fake_cmd;
        ops.tx_data = fake_tx;
        ops.dev_reset = fake_reset;
        dev.ops = &ops;
    }
    static std::vector<uint8_t> image(size_t bytes)
    {
        std::vector<uint8_t> content(bytes);
        for (size_t i = 0; i < bytes; i++)
            content[i] = static_cast<uint8_t>(i * 31 + i / 251);
        return content;
    }
    int write(size_t bytes, uint16_t type, uint16_t version = 2)
    {
        const std::vector<uint8_t> content = image(bytes);
        std::ofstream("image", std::ios::binary)
            .write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(bytes));
        return tqcam_bin_data_write(&dev, type, version, 0, "image");
    }
};

TEST_F(DataWrite, PacketsCarryTheImage)
{
    EXPECT_EQ(crc16_xmodem(reinterpret_cast<const uint8_t *>("123456789"), 9), 0x31C3);
    for (const size_t bytes : {size_t{1}, size_t{65530}, size_t{65531}}) {
        cam = FakeCamera();
        cam.acks = {{0, 3}, {0, 4}, {0, 1}, {1, 1}, {2, 1}};
        ASSERT_EQ(write(bytes, 5), 1);
        ASSERT_EQ(cam.packets.size(), (bytes + 65529) / 65530);
        std::vector<uint8_t> got;
        for (const std::vector<uint8_t> &packet : cam.packets) {
            uint16_t crc;
            uint32_t len;
            std::memcpy(&crc, packet.data(), 2);
            std::memcpy(&len, packet.data() + 2, 4);
            ASSERT_EQ(packet.size(), 6 + len);
            EXPECT_EQ(crc, crc16_xmodem(packet.data() + 6, len));
            got.insert(got.end(), packet.begin() + 6, packet.end());
        }
        EXPECT_EQ(got, image(bytes));
        EXPECT_EQ(cam.next_ack, 3 + cam.packets.size());
    }
    const std::vector<uint8_t> declared = {5, 0, 2, 0, 0xFB, 0xFF, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(cam.declared[0], declared);
    const std::vector<uint8_t> erased = {5, 0xFB, 0xFF, 0, 0, 0xFA, 0xFF, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(cam.erased[0], erased);
}

TEST_F(DataWrite, AcksInEveryWrongOrder)
{
    static const struct {
        const char *what;
        std::vector<al_ack_t> acks;
        bool works;
        size_t packets;
    } cases[] = {
        {"none for the declaration", {}, false, 0},
        {"packets taken at the declaration", {{1, 3}}, false, 0},
        {"declaration not accepted", {{0, 1}}, false, 0},
        {"gone in the erase", {{0, 3}, {0, 4}, {0, 4}, FAILS}, false, 0},
        {"not ready after the erase", {{0, 3}, {0, 3}}, false, 0},
        {"packets taken at the erase", {{0, 3}, {1, 1}}, false, 0},
        {"second look", {{0, 3}, {0, 1}, {0, 1}, {1, 1}, {2, 1}}, true, 2},
        {"second look in vain", {{0, 3}, {0, 1}, {0, 1}, {0, 1}, {1, 1}, {2, 1}}, true, 3},
        {"second look fails", {{0, 3}, {0, 1}, {0, 1}, FAILS, {1, 1}, {2, 1}}, true, 3},
        {"twice in vain", {{0, 3}, {0, 1}, {0, 1}, {0, 1}, {0, 1}, {0, 1}, {1, 1}}, false, 2},
        {"three strangers", {{0, 3}, {0, 1}, {7, 1}, {9, 1}, {2, 1}, {1, 1}, {2, 1}}, true, 5},
        {"four strangers", {{0, 3}, {0, 1}, {7, 1}, {7, 1}, {7, 1}, {7, 1}, {1, 1}}, false, 4},
        {"a packet taken twice", {{0, 3}, {0, 1}, {1, 1}, {3, 1}, {3, 1}, {3, 1}, {3, 1}}, false, 5},
        {"tries begin again",
         {{0, 3}, {0, 1}, {7, 1}, {7, 1}, {7, 1}, {1, 1}, {7, 1}, {7, 1}, {7, 1}, {2, 1}},
         true,
         8},
        {"gone in the packets", {{0, 3}, {0, 1}, {1, 1}}, false, 5},
        {"all ones", {{0, 3}, {0, 1}, {0xFFFFFFFF, 0xFF}, FAILS, FAILS, FAILS}, false, 4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        cam = FakeCamera();
        cam.acks = c.acks;
        const int result = write(65531, AL_TYPE_FIRMWARE);
        EXPECT_EQ(result >= 0, c.works) << result;
        EXPECT_EQ(cam.packets.size(), c.packets);
        EXPECT_EQ(cam.resets.size(), c.works ? 1u : 0u);
        EXPECT_EQ(g_slept, c.works ? 10u : 0u);
        g_slept = 0;
    }
}

TEST_F(DataWrite, PacketsThatDoNotLeave)
{
    for (const int r : {0, -4, -7}) {
        cam = FakeCamera();
        cam.acks = {{0, 3}, {0, 1}};
        cam.tx_result = r;
        EXPECT_LT(write(100, AL_TYPE_CALIB), 0);
        EXPECT_EQ(cam.packets.size(), 4u);
        EXPECT_EQ(g_slept, 0u);
    }
}

TEST_F(DataWrite, VersionsAndTypes)
{
    static const struct {
        uint16_t held, version, type;
        bool info_fails, works;
        unsigned sleeps;
    } cases[] = {
        {6, 7, 0, false, true, 10},     {7, 7, 0, false, false, 0},    {8, 7, 2, false, false, 0},
        {64999, 7, 2, false, false, 0}, {65000, 7, 2, false, true, 7}, {65535, 0, 5, false, true, 0},
        {7, 7, 3, false, true, 7},      {7, 0, 5, false, false, 0},    {0, 0, 5, true, false, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::Message() << c.held << " " << c.version << " " << c.type);
        cam = FakeCamera();
        g_slept = 0;
        cam.version = c.held;
        cam.info_fails = c.info_fails;
        cam.acks = {{0, 3}, {0, 1}, {1, 1}};
        EXPECT_EQ(write(10, c.type, c.version) >= 0, c.works);
        EXPECT_EQ(g_slept, c.sleeps);
        EXPECT_EQ(cam.resets.size(), c.works && c.type == 0 ? 1u : 0u);
        EXPECT_EQ(cam.declared.size(), c.works ? 1u : 0u);
    }
}

TEST_F(DataWrite, FilesOfEverySize)
{
    EXPECT_EQ(tqcam_bin_data_write(&dev, 5, 2, 0, "missing"), -1);
    EXPECT_EQ(tqcam_bin_data_write(&dev, 5, 2, 0, "."), -1); // a folder opens, and has no size
    EXPECT_EQ(tqcam_bin_data_write(nullptr, 5, 2, 0, "image"), -1);
    EXPECT_EQ(write(0, 5), -1);
    EXPECT_TRUE(log.has("Wrong File size:0\n"));
    ASSERT_EQ(truncate("image", 104857601), 0);
    EXPECT_EQ(tqcam_bin_data_write(&dev, 5, 2, 0, "image"), -1);
    EXPECT_TRUE(log.has("Wrong File size:104857601\n"));
    EXPECT_TRUE(cam.declared.empty());
    // 100 MiB are taken; erasing alone sends none of them and tells the type of calibration data.
    ASSERT_EQ(truncate("image", 104857600), 0);
    cam.acks = {{0, 3}, {0, 4}, {0, 1}};
    EXPECT_EQ(tqcam_bin_data_write(&dev, AL_TYPE_ERASE_ONLY, 2, 0, "image"), 1);
    ASSERT_EQ(cam.declared.size(), 1u);
    EXPECT_EQ(cam.declared[0][0], 3);
    EXPECT_EQ(cam.erased[0][0], 255);
    EXPECT_EQ(cam.erased[0][4], 6); // 0x06400000
    EXPECT_TRUE(cam.packets.empty());
    EXPECT_EQ(g_slept, 0u);
}

TEST_F(DataWrite, ReadsByBlocks)
{
    const auto file_size = [] {
        struct stat st = {};
        return stat("out", &st) == 0 ? static_cast<long>(st.st_size) : -1;
    };
    for (const uint32_t size : {0xFFFFFFFFu, 0x7FFFFFFFu}) {
        cam.held = size;
        EXPECT_EQ(tqcam_bin_data_read(&dev, 5, "out"), -1);
        EXPECT_EQ(file_size(), -1);
    }
    for (const uint32_t size : {0u, 1u, 450u, 451u}) {
        cam.held = size;
        cam.payloads.clear();
        EXPECT_EQ(tqcam_bin_data_read(&dev, 5, "out"), 1);
        EXPECT_EQ(file_size(), static_cast<long>(size));
        EXPECT_EQ(cam.payloads.size(), (size + 449) / 450);
    }
    EXPECT_EQ(cam.payloads[0][4], 450 & 255);
    EXPECT_EQ(cam.payloads[1][4], 1);
    // A camera that doesn't know the command gives a file all the same; one that is gone ends the reading.
    cam.payload_fails = true;
    EXPECT_EQ(tqcam_bin_data_read(&dev, 5, "out"), 1);
    cam.payloads.clear();
    cam.held = 100000000;
    cam.gone_behind_payload = true;
    EXPECT_EQ(tqcam_bin_data_read(&dev, 5, "out"), -1);
    EXPECT_EQ(cam.payloads.size(), 1u);
    cam.info_fails = false;
    EXPECT_EQ(tqcam_bin_data_read(&dev, 5, "no/such/folder"), -1);
    EXPECT_EQ(tqcam_data_upload(nullptr, 5, "out"), -1);
    EXPECT_EQ(tqcam_data_download(nullptr, "out", 5, 1, 0), -1);
}

} // namespace
