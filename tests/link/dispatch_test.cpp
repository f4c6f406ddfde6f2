#include <gtest/gtest.h>
#include <string>

#include "link/link_ops.h"

static std::string calls;

TEST(Dispatch, GoesToTheRecordsTableWithNarrowedArguments)
{
    tqcam_ll_ops_t ops = {}; // only what is called is filled
    ops.exe_cmd = [](tqcam_ll_dev_t *, uint8_t write, uint8_t type, uint16_t value, void *, uint32_t len,
                     uint32_t timeout) {
        for (const uint32_t v : {uint32_t{write}, uint32_t{type}, uint32_t{value}, len, timeout})
            calls += std::to_string(v) + " ";
        return true;
    };
    ops.reg_read = [](tqcam_ll_dev_t *, uint8_t type, uint32_t addr, uint32_t *, uint16_t count) {
        for (const uint32_t v : {uint32_t{type}, addr, uint32_t{count}})
            calls += std::to_string(v) + " ";
        return true;
    };
    tqcam_ll_dev_t dev = {};
    dev.ops = &ops;
    EXPECT_TRUE(tqcam_ll_exe_cmd(&dev, 0x101, 0x1C0, 0x12345, nullptr, 7, 1000));
    EXPECT_TRUE(tqcam_ll_reg_read(&dev, 0x102, 0xFFFFFFFFu, nullptr, 0x10003));
    EXPECT_EQ(calls, "1 192 9029 7 1000 2 4294967295 3 ");
    EXPECT_EQ(tqcam_ll_cap_seek(&dev, 0, 0), -1); // an empty slot, as the USB link's
}

// A NULL record, one that never opened, and one that no link serves.
TEST(Dispatch, RefusesRecordsWithoutLink)
{
    tqcam_ll_dev_t unopened = {}, strange = {};
    unopened.address.if_type = 1;
    strange.address.if_type = 100;
    for (tqcam_ll_dev_t *dev : {static_cast<tqcam_ll_dev_t *>(nullptr), &unopened, &strange}) {
        EXPECT_EQ(tqcam_ll_dev_open(dev), nullptr);
        EXPECT_EQ(tqcam_ll_dev_open_by_fd(dev, 3), nullptr);
        tqcam_ll_dev_close(dev);
        tqcam_ll_cap_abort(dev);
        EXPECT_FALSE(tqcam_ll_dev_reset(dev, 0));
        EXPECT_EQ(tqcam_ll_tx_data(dev, &calls, 4), 0);
        EXPECT_FALSE(tqcam_ll_cap_start(dev, 0, nullptr, nullptr));
        EXPECT_EQ(tqcam_ll_cap_seek(dev, 0, 0), -1);
    }
    EXPECT_EQ(tqcam_ll_dev_list(nullptr, 2), 0);
    EXPECT_EQ(tqcam_ll_dev_list(&unopened, -1), 0);
}
