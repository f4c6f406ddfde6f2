// The tool takes files apart by itself: what it computes and what it calls wrong must agree with the library.
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

#include "calib_file.h"
#include "calib_planes.h"
#include "calib_render.h"
#include "tiny_camera.h"

TEST(CalibTool, ComputesTheLibrarysPlanes)
{
    const sim_camera_row_t *row = sim_camera_find("E1");
    sim_camera_t cam;
    sim_camera_init(&cam, row, sim_defects_all(row), 5);
    tiny_camera_t tiny(8, 6);
    tiny.spread();
    std::vector<sim_calib_file_t> files;
    for (auto [ver, blk_ver, kind] : {std::tuple{150, 142, SIM_CALIB_IMAGES},
                                      {149, 142, SIM_CALIB_IMAGES},
                                      {139, 100, SIM_CALIB_IMAGES},
                                      {150, 142, SIM_CALIB_READY}}) {
        sim_calib_plan_t plan = sim_calib_plan(12000000, 0);
        plan.ver = static_cast<uint8_t>(ver);
        plan.blk_ver = static_cast<uint8_t>(blk_ver);
        plan.kind = kind;
        files.push_back(sim_calib_render(cam, plan));
    }
    std::vector<sim_calib_ref_t> two; // two distances, a turn apart at the centre, as depths of another scale
    for (int i = 0; i < 12; i++) {
        two.push_back(tiny.ref(i < 6 ? 1000 : 4000, static_cast<uint8_t>(i % 6), 30000));
        for (auto &v : two.back().phase)
            v = static_cast<uint16_t>(v + (i < 6 ? 30000 : 0));
    }
    calib_blk_info_t info = tiny.info();
    info.scale = 30000;
    info.ref_is_z = 1;
    files.push_back(sim_calib_file(150, 142));
    sim_calib_add_images(files.back(), info, two, {3.5, 2.5, 50, 50});

    TempDir dir;
    for (size_t i = 0; i < files.size(); i++) {
        SCOPED_TRACE(i);
        result_t res;
        ASSERT_EQ(load(files[i], 0, &res), 12000000);
        const CalibFile file("calib.bin");
        EXPECT_TRUE(file.problems.empty()) << file.problems.front();
        CalibPlanes planes;
        ASSERT_TRUE(calib_planes(file, file.blocks[0], planes));
        const size_t n = planes.slope.size();
        ASSERT_EQ(n, size_t{res.blk.img_w} * res.blk.img_h);
        EXPECT_EQ(std::memcmp(planes.slope.data(), res.planes, 4 * n), 0);
        EXPECT_EQ(std::memcmp(planes.offset.data(), res.planes + n, 4 * n), 0);
        EXPECT_EQ(planes.amp, res.amp);
        EXPECT_EQ(planes.pha, res.pha);
    }
}

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
        {"the header states the block checksum", 9, 1300, {77}},
        {"the header states 5 bytes of blocks", 9, 1196, {5, 0, 0, 0}},
        {"has the frequency 0", 0, 5, {0, 0, 0, 0}},
        {"has 1 reference images", 0, 25, {1}},
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
        EXPECT_TRUE(!c.says || std::any_of(seen.problems.begin(), seen.problems.end(),
                                           [&](const std::string &text) {
                                               return text.find(c.says) != std::string::npos;
                                           }))
            << (seen.problems.empty() ? "nothing" : seen.problems.front());
    }
    // Cuts, wherever they are.
    const bytes_t whole = sim_calib_file_bytes(good);
    for (size_t cut = 0; cut < whole.size(); cut += 31) {
        sim_calib_save("calib.bin", bytes_t(whole.begin(), whole.begin() + static_cast<long>(cut)));
        EXPECT_FALSE(CalibFile("calib.bin").problems.empty()) << cut;
    }
}
