// The vector forms of the colour conversion against their plain forms, in every layout of the output.
#include "support/kernel_check.h"

#include <vector>

#include "image/cmap_kernels.h"

// Where the channels of the first pixel stand in a buffer for n pixels, in bytes or, with a stride of 1, in
// whole planes.
struct layout_t {
    const char *what;
    int r, g, b, stride, planes;
};
static const layout_t kLayouts[] = {
    {"RGB", 0, 1, 2, 3, 0},    {"BGR", 2, 1, 0, 3, 0},        {"RGBA", 0, 1, 2, 4, 0},
    {"ARGB", 1, 2, 3, 4, 0},   {"GBRA", 2, 0, 1, 4, 0},       {"spread", 0, 2, 4, 7, 0},
    {"planes", 0, 1, 2, 1, 1}, {"same place", 0, 0, 1, 3, 0}, {"overlap", 0, 1, 2, 1, 0}};

// Compares run(form, palette, out) of both forms, in each layout.
template <typename F, typename G, typename R>
static testing::AssertionResult same_colours(KernelRng &rng, int n, F plain, G simd, R run)
{
    const palette_row_t *pal = tq_cmap_palettes[rng.below(kPaletteCount)];
    for (const layout_t &l : kLayouts) {
        const int unit = l.planes ? n : 1;
        const size_t room = l.planes ? 3 * (size_t)n : (size_t)(l.stride * n + 6);
        const auto place = [&](auto form, uint8_t *out) {
            run(form, pal, rgb_out_t{out + l.r * unit, out + l.g * unit, out + l.b * unit, l.stride});
        };
        if (auto result = same_results<uint8_t>(room, rng.below(64), plain, simd, place); !result)
            return result << " in " << l.what;
    }
    return testing::AssertionSuccess();
}

TEST(ColourKernels, U16)
{
    for_each_length([](KernelRng &rng, int n) {
        Guarded<uint16_t> src((size_t)n, rng.below(64));
        fill_samples(rng, src.values());
        const uint16_t ends[] = {0, 1, (uint16_t)rng.bits(), (uint16_t)(src[0] - rng.below(9)), 65535};
        const uint16_t lo = ends[rng.below(5)], hi = ends[rng.below(5)];
        const auto run = [&](auto form, auto pal, rgb_out_t out) { form(pal, src.data(), n, out, lo, hi); };
        const auto by_table = [](auto pal, auto from, int len, rgb_out_t out, uint16_t first, uint16_t last) {
            std::vector<uint32_t> tbl((size_t)cmap_table_last(first, last) + 1);
            cmap_make_table_simd(pal, cmap_order(out), first, last, tbl.data());
            cmap_by_table_simd(tbl.data(), from, len, out, first, last);
        };
        ASSERT_TRUE(same_colours(rng, n, cmap_u16_to_rgb_plain, cmap_u16_to_rgb_simd, run));
        ASSERT_TRUE(n % 4 || same_colours(rng, n, cmap_u16_to_rgb_plain, by_table, run));
    });
}

TEST(ColourKernels, F32)
{
    for_each_length([](KernelRng &rng, int n) {
        Guarded<float> src((size_t)n, rng.below(16));
        const float lo = some_float(rng, 0, 1), hi = some_float(rng, lo, lo + 1);
        for (float &v : src.values())
            v = some_float(rng, lo - 0.1f * (hi - lo), hi + 0.1f * (hi - lo));
        const auto run = [&](auto form, auto pal, rgb_out_t out) { form(pal, src.data(), n, out, lo, hi); };
        ASSERT_TRUE(same_colours(rng, n, cmap_f32_to_rgb_plain, cmap_f32_to_rgb_simd, run));
    });
}
