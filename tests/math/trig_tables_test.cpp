#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "math/trig_tables.h"
#include "tq_math.h"

static const double kTurn = 2 * std::acos(-1.0);

TEST(TrigTables, ArctangentFollowsItsRule)
{
    for (int i = 0; i < ARCTAN2_LUT_NUM; i++)
        ASSERT_EQ(g_atan2_LUT[i], (uint16_t)std::round(std::atan2(i, 4095) * 32768 / kTurn)) << i;
    EXPECT_EQ(g_atan2_LUT[1], 1);
    EXPECT_EQ(g_atan2_LUT[2], 3);
    EXPECT_EQ(g_atan2_LUT[4095], 4096);
}

TEST(TrigTables, SineKeepsSixDecimals)
{
    for (int i = 0; i < SIN_LUT_NUM; i++) {
        char text[32];
        snprintf(text, sizeof text, "%f", (float)std::sin(kTurn * i / SIN_LUT_NUM));
        ASSERT_EQ(g_sin_LUT[i], strtof(text, nullptr)) << i;
    }
    EXPECT_EQ(g_sin_LUT[1], 0.000767f);
    EXPECT_EQ(g_sin_LUT[2048], 1.0f);
    EXPECT_EQ(g_sin_LUT[2047], 1.0f); // 0.9999997 in f32
    EXPECT_FALSE(std::signbit(g_sin_LUT[4096]));
}

static std::string printed(void (*print)())
{
    testing::internal::CaptureStdout();
    print();
    return testing::internal::GetCapturedStdout();
}

TEST(TrigTables, PrintersWriteSource)
{
    EXPECT_EQ(printed([] { tq_math_lut_print_sinf(0); }),
              "#define SIN_LUT_NUM 0\nconst float g_sin_LUT[SIN_LUT_NUM] = {};");
    EXPECT_EQ(
        printed([] { tq_math_lut_print_arctan2(3); }),
        "#define ARCTAN2_LUT_NUM 3\nconst uint16_t g_atan2_LUT[ARCTAN2_LUT_NUM] = {0, 2418, 4096, \n};");
    EXPECT_EQ(printed([] { tq_math_lut_print_arctan2(16); }),
              "#define ARCTAN2_LUT_NUM 16\nconst uint16_t g_atan2_LUT[ARCTAN2_LUT_NUM] = {0, 347, 691, 1029, "
              "1359, 1678, 1984, 2277, 2555, 2818, 3067, 3300, 3519, 3724, 3916, 4096, \n    };");
}

TEST(TrigTables, PrintedTablesAreTheTables)
{
    std::istringstream sines(printed([] { tq_math_lut_print_sinf(8192); }));
    sines.ignore(1000, '{');
    for (int i = 0; i < SIN_LUT_NUM; i++) {
        std::string entry;
        sines >> entry; // "0.000767,"
        ASSERT_EQ(strtof(entry.c_str(), nullptr), g_sin_LUT[i]) << i;
    }
    std::istringstream arcs(printed([] { tq_math_lut_print_arctan2(4096); }));
    arcs.ignore(1000, '{');
    for (int i = 0; i < ARCTAN2_LUT_NUM; i++) {
        std::string entry;
        arcs >> entry;
        ASSERT_EQ(atoi(entry.c_str()), g_atan2_LUT[i]) << i;
    }
}
