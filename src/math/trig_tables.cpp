#include "math/trig_tables.h"

#include <cmath>
#include <cstdio>

#include "tq_math.h"

// Both tables are made by the compiler. The C++ library's functions aren't constexpr, hence the series; they
// are good to 1e-15, and the tests hold every entry against the library's functions.
static constexpr double kPi = 3.14159265358979323846;

// atan(x) for x in 0 to 1: above tan(pi / 8) by way of atan(x) = pi / 4 - atan((1 - x) / (1 + x)).
static constexpr double _atan_series(double x)
{
    const bool upper = x > 0.41421356237309503;
    const double y = upper ? (1.0 - x) / (1.0 + x) : x;
    double sum = 0.0;
    for (int k = 41; k > 0; k -= 2)
        sum = 1.0 / k - y * y * sum;
    return upper ? kPi / 4 - y * sum : y * sum;
}

// sin(x) and cos(x) for x in 0 to pi / 4.
static constexpr double _sin_series(double x)
{
    double sum = 1.0;
    for (int k = 18; k > 0; k -= 2)
        sum = 1.0 - x * x / (k * (k + 1)) * sum;
    return x * sum;
}

static constexpr double _cos_series(double x)
{
    double sum = 1.0;
    for (int k = 19; k > 0; k -= 2)
        sum = 1.0 - x * x / (k * (k + 1)) * sum;
    return sum;
}

static constexpr std::array<uint16_t, ARCTAN2_LUT_NUM> _make_atan2()
{
    std::array<uint16_t, ARCTAN2_LUT_NUM> t{};
    for (int i = 0; i < ARCTAN2_LUT_NUM; i++)
        t[i] = (uint16_t)(_atan_series(i / 4095.0) * 32768 / (2 * kPi) + 0.5);
    return t;
}

static constexpr std::array<float, SIN_LUT_NUM> _make_sin()
{
    constexpr int quarter = SIN_LUT_NUM / 4;
    std::array<float, SIN_LUT_NUM> t{};
    for (int i = 0; i <= quarter; i++) {
        const double x = 2 * kPi * (i <= quarter / 2 ? i : quarter - i) / SIN_LUT_NUM;
        const float s = (float)(i <= quarter / 2 ? _sin_series(x) : _cos_series(x));
        // The product is exact in 64 bits, so that the tie of a half decimal can't be made by rounding.
        const float v = (float)((double)(int)((double)s * 1e6 + 0.5) / 1e6);
        t[i] = v;
        t[2 * quarter - i] = v;
        if (i > 0) {
            t[2 * quarter + i] = -v;
            t[(4 * quarter - i) % SIN_LUT_NUM] = -v;
        }
    }
    return t;
}

constexpr std::array<uint16_t, ARCTAN2_LUT_NUM> g_atan2_LUT = _make_atan2();
constexpr std::array<float, SIN_LUT_NUM> g_sin_LUT = _make_sin();

// The closing brace begins a line of its own: the break behind a sixteenth entry serves for it.
static void _print_end(bool broken)
{
    fputs(broken ? "};" : "\n};", stdout);
}

void tq_math_lut_print_arctan2(uint32_t n)
{
    printf("#define ARCTAN2_LUT_NUM %d\n", (int)n);
    fputs("const uint16_t g_atan2_LUT[ARCTAN2_LUT_NUM] = {", stdout);
    for (uint32_t i = 0; i < n; i++)
        printf(i % 16 == 15 ? "%u, \n    " : "%u, ",
               (unsigned)std::round(std::atan2((double)i, (double)(n - 1)) * 32768 / (2 * kPi)));
    _print_end(n % 16 == 0);
}

void tq_math_lut_print_sinf(int n)
{
    printf("#define SIN_LUT_NUM %d\n", n);
    fputs("const float g_sin_LUT[SIN_LUT_NUM] = {", stdout);
    for (int i = 0; i < n; i++)
        printf(i % 16 == 15 ? "%f, \n    " : "%f, ", (double)(float)std::sin(2.0 * i * kPi / n));
    _print_end(n < 1 || n % 16 == 0);
}
