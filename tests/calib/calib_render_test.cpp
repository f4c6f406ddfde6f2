// The simulator's calibration, read back by the library, must undo the defects of the very camera. The tool
// takes files apart by itself: its planes must be the library's.
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

#include "calib_file.h"
#include "calib_planes.h"
#include "calib_render.h"
#include "raw_e_family.h"
#include "tiny_camera.h"

// What the tool makes of the first block of the file that res was loaded from.
static void _expect_tools_planes(const calib_result_t &res)
{
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

// The median of what is left of a distance after the pixels' lines.
static double _median_error(const sim_camera_t &cam, const calib_result_t &res, uint32_t freq, double true_mm)
{
    const sim_state_t rest{freq, 1000, SIM_REF_FPS, SIM_REF_TEMP_CB, SIM_REF_TEMP_IB};
    const uint32_t w = cam.row->width, h = cam.row->height;
    std::vector<double> error;
    for (uint32_t p = 0; p < w * h; p++) {
        const uint32_t row = cam.row->family == SIM_FAMILY_E ? sim_raw_e_image_row(cam.row, p / w, h) : p / w;
        const double mm = sim_camera_measured_mm(cam, row * w + p % w, true_mm, rest);
        error.push_back(std::fabs(mm * res.planes[p] + res.planes[w * h + p] - true_mm));
    }
    std::nth_element(error.begin(), error.begin() + w * h / 2, error.end());
    return error[w * h / 2];
}

TEST(CalibRender, UndoesTheDefectsInEveryForm)
{
    struct {
        const char *camera;
        uint8_t ver, blk_ver;
        sim_calib_kind_t kind;
        sim_calib_temp_t temp;
        bool flat;
        double mm; // in which the error must stay; one distance and delay steps alone leave the scale open
    } cases[] = {
        {"E1", 149, 142, SIM_CALIB_IMAGES, SIM_CALIB_TEMP_COEFS, false, 0.5},
        {"E1", 140, 141, SIM_CALIB_IMAGES, SIM_CALIB_TEMP_NONE, false, 5},
        {"E1", 139, 100, SIM_CALIB_IMAGES, SIM_CALIB_TEMP_SAMPLES, false, 5},
        {"E1", 150, 142, SIM_CALIB_READY, SIM_CALIB_TEMP_COEFS, false, 0.5},
        {"E5", 150, 142, SIM_CALIB_IMAGES, SIM_CALIB_TEMP_SAMPLES, true, 0.5},
        {"S1", 150, 142, SIM_CALIB_IMAGES, SIM_CALIB_TEMP_NONE, true, 0.5},
    };
    TempDir dir;
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.camera << " " << int{c.ver} << "/" << int{c.blk_ver} << " " << c.kind);
        const sim_camera_row_t *row = sim_camera_find(c.camera);
        sim_defects_t defects = sim_defects_all(row);
        defects.periodic = 0;
        sim_camera_t cam;
        sim_camera_init(&cam, row, defects, 3);
        sim_calib_plan_t plan = sim_calib_plan(row->freq0, row->freq0 / 2);
        plan.ver = c.ver;
        plan.blk_ver = c.blk_ver;
        plan.kind = c.kind;
        plan.temp = c.temp;
        plan.flat_walls = c.flat;
        const sim_calib_file_t file = sim_calib_render(cam, plan);
        for (uint32_t freq : plan.freqs) {
            result_t res;
            ASSERT_EQ(load(file, freq, &res), static_cast<int32_t>(freq));
            if (freq == plan.freqs[0])
                _expect_tools_planes(res);
            EXPECT_LT(_median_error(cam, res, freq, 0.3 * sim_range_mm(freq)), c.mm);
            const bool temp = c.ver >= 140 && c.temp != SIM_CALIB_TEMP_NONE;
            EXPECT_EQ(res.tcoef_cnt, temp ? 5u : 0u);
            if (temp) {
                EXPECT_NEAR(res.tcoef_mm[2], row->drift.mm_per_deg_cb, 0.05);
                EXPECT_NEAR(res.tcoef_mm[3], row->drift.mm_per_deg_ib, 0.05);
                EXPECT_NEAR(res.tcoef_mm[4], 10 * row->drift.mm_per_fps, 0.1);
            }
            EXPECT_EQ(res.lens != nullptr, c.ver >= 140);
        }
    }
}
