// Images to and from a camera's memory, against a scripted link.
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

#include "link/link_ops.h"
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
    uint32_t held = 0xFFFFFFFF;                           // size that the info record tells
    std::vector<al_ack_t> acks;                           // in order; beyond them the camera is gone
    size_t next_ack = 0, resets = 0, commands = SIZE_MAX; // left until it goes
    std::vector<std::vector<uint8_t>> packets;
    std::map<int, std::vector<std::vector<uint8_t>>> sent; // by action
};
FakeCamera cam;

bool fake_cmd(tqcam_ll_dev_t *, uint8_t, uint8_t type, uint16_t value, void *data, uint32_t len, uint32_t)
{
    EXPECT_EQ(type, 0xCC);
    auto *bytes = static_cast<uint8_t *>(data);
    cam.sent[value].emplace_back(bytes, bytes + len);
    if (value == AL_ACTION_INFO) {
        std::memcpy(bytes + 2, &cam.version, 2);
        std::memcpy(bytes + 4, &cam.held, 4);
    }
    if (value == AL_ACTION_ACK) {
        const al_ack_t ack = cam.next_ack < cam.acks.size() ? cam.acks[cam.next_ack] : FAILS;
        cam.next_ack++;
        std::memcpy(bytes, &ack.num, 4);
        bytes[4] = ack.status;
        return ack.status != FAILS.status;
    }
    return cam.commands > 0 && cam.commands-- > 0;
}

struct DataWrite : ::testing::Test {
    TempDir dir;
    tqcam_ll_ops_t ops = {};
    tqcam_ll_dev_t dev = {};
    std::string image;

    void SetUp() override
    {
        cam = FakeCamera();
        g_slept = 0;
        ops.exe_cmd = fake_cmd;
        ops.tx_data = [](tqcam_ll_dev_t *, const void *data, uint32_t len) {
            cam.packets.emplace_back((const uint8_t *)data, (const uint8_t *)data + len);
            return static_cast<int>(len);
        };
        ops.dev_reset = [](tqcam_ll_dev_t *, uint8_t) { return ++cam.resets > 0; };
        dev.ops = &ops;
    }
    int write(size_t bytes, uint16_t type, uint16_t version = 2)
    {
        image.resize(bytes);
        std::generate(image.begin(), image.end(), std::minstd_rand());
        std::ofstream("image", std::ios::binary) << image;
        return tqcam_bin_data_write(&dev, type, version, 0, "image");
    }
};

TEST_F(DataWrite, PacketsCarryTheImage)
{
    EXPECT_EQ(crc16_xmodem(reinterpret_cast<const uint8_t *>("123456789"), 9), 0x31C3);
    for (const size_t bytes : {size_t{65530}, size_t{65531}}) {
        cam = FakeCamera();
        cam.acks = {{0, 3}, {0, 4}, {0, 1}, {1, 1}, {2, 1}};
        ASSERT_EQ(write(bytes, 5), 1);
        ASSERT_EQ(cam.packets.size(), (bytes + 65529) / 65530);
        std::string got;
        for (const std::vector<uint8_t> &packet : cam.packets) {
            const auto len = static_cast<uint32_t>(packet.size() - 6);
            EXPECT_EQ(std::memcmp(packet.data() + 2, &len, 4), 0);
            const uint16_t crc = crc16_xmodem(packet.data() + 6, len);
            EXPECT_EQ(std::memcmp(packet.data(), &crc, 2), 0);
            got.append(packet.begin() + 6, packet.end());
        }
        EXPECT_EQ(got, image);
    }
    const std::vector<uint8_t> declared = {5, 0, 2, 0, 0xFB, 0xFF, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(cam.sent[AL_ACTION_DECLARE].at(0), declared);
    const std::vector<uint8_t> erased = {5, 0xFB, 0xFF, 0, 0, 0xFA, 0xFF, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(cam.sent[AL_ACTION_ERASE].at(0), erased);
}

TEST_F(DataWrite, AcksInEveryWrongOrder)
{
    static const struct {
        const char *what;
        std::vector<al_ack_t> acks;
        bool works;
        size_t packets;
    } cases[] = {
        {"packets taken at the declaration", {{1, 3}}, false, 0},
        {"gone in the erase", {{0, 3}, {0, 4}, {0, 4}, FAILS}, false, 0},
        {"second look", {{0, 3}, {0, 1}, {0, 1}, {1, 1}, {2, 1}}, true, 2},
        {"second look in vain", {{0, 3}, {0, 1}, {0, 1}, {0, 1}, {1, 1}, {2, 1}}, true, 3},
        {"three strangers", {{0, 3}, {0, 1}, {7, 1}, {9, 1}, {2, 1}, {1, 1}, {2, 1}}, true, 5},
        {"four strangers", {{0, 3}, {0, 1}, {7, 1}, {7, 1}, {7, 1}, {7, 1}, {1, 1}}, false, 4},
        {"a packet taken twice", {{0, 3}, {0, 1}, {1, 1}, {3, 1}, {3, 1}, {3, 1}, {3, 1}}, false, 5},
        {"gone in the packets", {{0, 3}, {0, 1}, {1, 1}}, false, 5},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        cam = FakeCamera();
        cam.acks = c.acks;
        EXPECT_EQ(write(65531, AL_TYPE_FIRMWARE) >= 0, c.works);
        EXPECT_EQ(cam.packets.size(), c.packets);
    }
}

TEST_F(DataWrite, VersionsAndTypes)
{
    static const struct {
        uint16_t held, version, type;
        bool works;
        unsigned sleeps;
    } cases[] = {
        {6, 7, 0, true, 10}, {7, 7, 0, false, 0},    {64999, 7, 2, false, 0},
        {7, 7, 3, true, 7},  {65000, 7, 2, true, 7}, {65535, 0, 5, true, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::Message() << c.held << " " << c.version << " " << c.type);
        cam = FakeCamera();
        g_slept = 0;
        cam.version = c.held;
        cam.acks = {{0, 3}, {0, 1}, {1, 1}};
        EXPECT_EQ(write(10, c.type, c.version) >= 0, c.works);
        EXPECT_EQ(g_slept, c.sleeps);
        EXPECT_EQ(cam.resets, c.sleeps == 10);
    }
}

TEST_F(DataWrite, FilesOfEverySize)
{
    EXPECT_EQ(tqcam_bin_data_write(&dev, 5, 2, 0, "."), -1); // a folder opens, and has no size
    EXPECT_EQ(write(0, 5), -1);
    ASSERT_EQ(truncate("image", 104857601), 0);
    EXPECT_EQ(tqcam_bin_data_write(&dev, 5, 2, 0, "image"), -1);
    EXPECT_TRUE(cam.sent.empty());
    // 100 MiB are taken; erasing alone sends none of them and tells the type of calibration data.
    ASSERT_EQ(truncate("image", 104857600), 0);
    cam.acks = {{0, 3}, {0, 4}, {0, 1}};
    EXPECT_EQ(tqcam_bin_data_write(&dev, AL_TYPE_ERASE_ONLY, 2, 0, "image"), 1);
    EXPECT_EQ(cam.sent[AL_ACTION_DECLARE].at(0)[0], 3);
    EXPECT_EQ(cam.sent[AL_ACTION_ERASE].at(0)[0], 255);
}

TEST_F(DataWrite, ReadsByBlocks)
{
    for (const uint32_t size : {0u, 450u, 451u}) {
        cam.held = size;
        cam.sent.clear();
        EXPECT_EQ(tqcam_bin_data_read(&dev, 5, "out"), 1);
        EXPECT_EQ(read_text("out").size(), size);
        EXPECT_EQ(cam.sent[AL_ACTION_PAYLOAD].size(), (size + 449) / 450);
    }
    EXPECT_EQ(cam.sent[AL_ACTION_PAYLOAD][1][4], 1);
    cam.sent.clear();
    cam.held = 100000000;
    cam.commands = 1;
    EXPECT_EQ(tqcam_bin_data_read(&dev, 5, "out"), -1);
    EXPECT_EQ(cam.sent[AL_ACTION_PAYLOAD].size(), 1u) << "one that is gone ends the reading";
}

} // namespace
