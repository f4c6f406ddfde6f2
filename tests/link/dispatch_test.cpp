#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "link/link_ops.h"

namespace {
std::vector<std::string> calls;

// A table of which only the calls of one test are filled.
tqcam_ll_ops_t table()
{
    tqcam_ll_ops_t ops = {};
    ops.exe_cmd = [](tqcam_ll_dev_t *, uint8_t write, uint8_t type, uint16_t value, void *, uint32_t len,
                     uint32_t timeout) {
        calls.push_back("cmd " + std::to_string(write) + " " + std::to_string(type) + " " +
                        std::to_string(value) + " " + std::to_string(len) + " " + std::to_string(timeout));
        return true;
    };
    ops.dev_open = [](tqcam_ll_dev_t *dev) {
        calls.push_back("open");
        return dev;
    };
    ops.reg_read = [](tqcam_ll_dev_t *, uint8_t type, uint32_t addr, uint32_t *, uint16_t count) {
        calls.push_back("reg " + std::to_string(type) + " " + std::to_string(addr) + " " +
                        std::to_string(count));
        return true;
    };
    return ops;
}
} // namespace

TEST(Dispatch, GoesToTheRecordsTableWithNarrowedArguments)
{
    const tqcam_ll_ops_t ops = table();
    tqcam_ll_dev_t dev = {};
    dev.ops = &ops;
    EXPECT_EQ(tqcam_ll_dev_open(&dev), &dev);
    EXPECT_TRUE(tqcam_ll_exe_cmd(&dev, 0x101, 0x1C0, 0x12345, nullptr, 7, 1000));
    EXPECT_TRUE(tqcam_ll_reg_read(&dev, 0x102, 0xFFFFFFFFu, nullptr, 0x10003));
    EXPECT_EQ(calls, (std::vector<std::string>{"open", "cmd 1 192 9029 7 1000", "reg 2 4294967295 3"}));
    EXPECT_EQ(tqcam_ll_cap_seek(&dev, 0, 0), -1); // an empty slot, as the USB link's
}

// A NULL record and one that never opened.
TEST(Dispatch, RefusesRecordsWithoutLink)
{
    tqcam_ll_dev_t unopened = {};
    tqcam_ll_param_t item = {};
    uint32_t word = 0;
    for (tqcam_ll_dev_t *dev : {static_cast<tqcam_ll_dev_t *>(nullptr), &unopened}) {
        tqcam_ll_dev_close(dev);
        tqcam_ll_cap_abort(dev);
        tqcam_ll_cap_wait(dev);
        EXPECT_FALSE(tqcam_ll_dev_reset(dev, 0));
        EXPECT_FALSE(tqcam_ll_exe_cmd(dev, 1, 0xC0, 0, &word, 4, 10));
        EXPECT_EQ(tqcam_ll_tx_data(dev, &word, 4), 0);
        EXPECT_FALSE(tqcam_ll_cap_start(dev, 0, nullptr, nullptr));
        EXPECT_FALSE(tqcam_ll_cap_stop(dev));
        EXPECT_EQ(tqcam_ll_cap_seek(dev, 0, 0), -1);
        EXPECT_FALSE(tqcam_ll_reg_write(dev, 0, 0, &word, 1));
        EXPECT_FALSE(tqcam_ll_reg_read(dev, 0, 0, &word, 1));
        EXPECT_FALSE(tqcam_ll_param_set(dev, &item, 1));
        EXPECT_FALSE(tqcam_ll_param_get(dev, &item, 1));
        EXPECT_EQ(tqcam_ll_dev_open_by_fd(dev, 3), nullptr);
    }
    EXPECT_EQ(tqcam_ll_dev_open(nullptr), nullptr);
}

TEST(Dispatch, OffersRecordsAndListsToBothLinks)
{
    EXPECT_TRUE(tqcam_ll_init());
    tqcam_ll_set_debug(5);
    tqcam_ll_dev_t list[2] = {};
    EXPECT_EQ(tqcam_ll_dev_list(list, 0), 0);
    EXPECT_EQ(tqcam_ll_dev_list(list, -1), 0);
    EXPECT_EQ(tqcam_ll_dev_list(nullptr, 2), 0);
    for (unsigned if_type : {1u, 100u}) { // no link serves these
        tqcam_ll_dev_t dev = {};
        dev.address.if_type = if_type;
        dev.inited = 1;
        EXPECT_EQ(tqcam_ll_dev_open(&dev), nullptr);
        EXPECT_EQ(dev.ops, nullptr);
    }
    tqcam_ll_uninit();
}
