// The tool takes files apart by itself: what it calls wrong must agree with the library.
#include <gtest/gtest.h>

#include "calib_file.h"
#include "tiny_camera.h"

TEST(CalibTool, NamesWhatTheLibraryRefuses)
{
    using bytes_t = std::vector<uint8_t>;
    tiny_camera_t cam(8, 6);
    sim_calib_file_t good = sim_calib_file(150, 142);
    sim_calib_add_images(good, cam.info(), cam.walls(4));
    calib_temp_hdr_t temp{};
    temp.freq = 12000000;
    sim_calib_add_temp_coefs(good, temp, {40, 10, 30, 12, 2});
    const struct {
        const char *says;
        size_t block, at; // block 9: at in the sealed file
        bytes_t with;
    } cases[] = {
        {nullptr, 0, 0, {1}},
        {"magic 0x3e8", 9, 5, {0xE8, 3, 0, 0}},
        {"the header states the checksum", 9, 700, {1}},
        {"needs 14732 bytes for what its head says and holds 464", 0, 25, {127}},
        {"is of 70000 x 6 pixels", 0, 30, {0x70, 0x11, 1, 0}},
        {"states 9 values of 4 bytes", 1, 17, {9, 0}},
        {"of 12 bytes and holds 20 bytes", 1, 0, {5}},
        {"no block calibrates any frequency", 0, 0, {99}},
    };
    TempDir dir;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.says ? c.says : "good");
        sim_calib_file_t file = good;
        if (c.block < 9)
            std::copy(c.with.begin(), c.with.end(), file.blocks[c.block].begin() + static_cast<long>(c.at));
        bytes_t bytes = sim_calib_file_bytes(file);
        if (c.block == 9)
            std::copy(c.with.begin(), c.with.end(), bytes.begin() + static_cast<long>(c.at));
        sim_calib_save("calib.bin", bytes);
        result_t res;
        int32_t cnt = 0;
        EXPECT_EQ(calib_load("calib.bin", 0, &res, nullptr, &cnt) < 0, c.says != nullptr);
        const CalibFile seen("calib.bin");
        EXPECT_EQ(!seen.problems.empty(), c.says != nullptr);
        bool said = !c.says;
        for (const std::string &text : seen.problems)
            said = said || text.find(c.says) != std::string::npos;
        EXPECT_TRUE(said) << (seen.problems.empty() ? "nothing" : seen.problems.front());
    }
}
