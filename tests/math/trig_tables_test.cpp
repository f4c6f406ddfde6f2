#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "math/trig_tables.h"
#include "tq_math.h"

// What print() writes: the declaration in front of the entries, then the entries.
static std::string _printed(void (*print)(), std::istringstream *entries = nullptr)
{
    testing::internal::CaptureStdout();
    print();
    const std::string all = testing::internal::GetCapturedStdout();
    if (entries)
        entries->str(all.substr(all.find('{') + 1));
    return all;
}

TEST(TrigTables, FollowTheirRulesAndPrintThemselves)
{
    const double turn = 2 * std::acos(-1.0);
    std::istringstream arcs, sines;
    _printed([] { tq_math_lut_print_arctan2(4096); }, &arcs);
    _printed([] { tq_math_lut_print_sinf(8192); }, &sines);
    std::string entry; // "0.000767,"
    for (int i = 0; i < ARCTAN2_LUT_NUM; i++) {
        ASSERT_EQ(g_atan2_LUT[i], (uint16_t)std::round(std::atan2(i, 4095) * 32768 / turn)) << i;
        arcs >> entry;
        ASSERT_EQ(atoi(entry.c_str()), g_atan2_LUT[i]) << i;
    }
    for (int i = 0; i < SIN_LUT_NUM; i++) {
        char text[32];
        snprintf(text, sizeof text, "%f", (float)std::sin(turn * i / SIN_LUT_NUM));
        ASSERT_EQ(g_sin_LUT[i], strtof(text, nullptr)) << i;
        sines >> entry;
        ASSERT_EQ(strtof(entry.c_str(), nullptr), g_sin_LUT[i]) << i;
    }
    EXPECT_FALSE(std::signbit(g_sin_LUT[4096]));
    EXPECT_EQ(_printed([] { tq_math_lut_print_sinf(0); }),
              "#define SIN_LUT_NUM 0\nconst float g_sin_LUT[SIN_LUT_NUM] = {};");
    EXPECT_EQ(
        _printed([] { tq_math_lut_print_arctan2(3); }),
        "#define ARCTAN2_LUT_NUM 3\nconst uint16_t g_atan2_LUT[ARCTAN2_LUT_NUM] = {0, 2418, 4096, \n};");
    EXPECT_EQ(_printed([] { tq_math_lut_print_arctan2(16); }),
              "#define ARCTAN2_LUT_NUM 16\nconst uint16_t g_atan2_LUT[ARCTAN2_LUT_NUM] = {0, 347, 691, 1029, "
              "1359, 1678, 1984, 2277, 2555, 2818, 3067, 3300, 3519, 3724, 3916, 4096, \n    };");
}
