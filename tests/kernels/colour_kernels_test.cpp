// The vector forms of the colour conversion against their plain forms, in every layout of the output.
#include "support/kernel_check.h"

#include <vector>

#include "image/cmap_kernels.h"

// Where the channels of the first pixel stand in a buffer for n pixels, in bytes or, with a stride of 1, in
// whole planes.
struct layout_t {
    const char *what;
    int r, g, b, stride;
    bool planes = false;
};
static const layout_t kLayouts[] = {
    {"RGB", 0, 1, 2, 3},          {"BGR", 2, 1, 0, 3},        {"RGBA", 0, 1, 2, 4},
    {"ARGB", 1, 2, 3, 4},         {"GBRA", 2, 0, 1, 4},       {"spread", 0, 2, 4, 7},
    {"planes", 0, 1, 2, 1, true}, {"same place", 0, 0, 1, 3}, {"overlap", 0, 1, 2, 1}};

using bytes_t = Guarded<uint8_t>;

// Calls check(rng, palette, n, due, place of due, got, place of got).
template <typename F> static void for_each_case(F check)
{
    for_each_length([&](KernelRng &rng, int n) {
        for (const layout_t &l : kLayouts) {
            SCOPED_TRACE(l.what);
            const int unit = l.planes ? n : 1;
            const size_t room = l.planes ? 3 * (size_t)n : (size_t)(l.stride * n + 6);
            bytes_t due(room, rng.below(64)), got(room, rng.below(64));
            const auto place = [&](bytes_t &b) {
                return rgb_out_t{b.data() + l.r * unit, b.data() + l.g * unit, b.data() + l.b * unit,
                                 l.stride};
            };
            check(rng, tq_cmap_palettes[rng.below(kPaletteCount)], n, place(due), place(got));
            ASSERT_TRUE(same_bits(due, got, 3));
        }
    });
}

TEST(ColourKernels, U16)
{
    for_each_case([](KernelRng &rng, const palette_row_t *pal, int n, rgb_out_t due, rgb_out_t got) {
        Guarded<uint16_t> src((size_t)n, rng.below(64));
        fill_samples(rng, src.values());
        const uint16_t ends[] = {0, 1, (uint16_t)rng.bits(), (uint16_t)(src[0] - rng.below(9)), 65535};
        const uint16_t lo = ends[rng.below(5)], hi = ends[rng.below(5)];
        cmap_u16_to_rgb_plain(pal, src.data(), n, due, lo, hi);
        if (rng.below(4) != 0) {
            cmap_u16_to_rgb_simd(pal, src.data(), n, got, lo, hi);
            return;
        }
        std::vector<uint32_t> tbl((size_t)cmap_table_last(lo, hi) + 1);
        cmap_make_table_simd(pal, cmap_order(got), lo, hi, tbl.data());
        cmap_by_table_simd(tbl.data(), src.data(), n, got, lo, hi);
    });
}

TEST(ColourKernels, F32)
{
    for_each_case([](KernelRng &rng, const palette_row_t *pal, int n, rgb_out_t due, rgb_out_t got) {
        Guarded<float> src((size_t)n, rng.below(16));
        const float lo = some_float(rng, 0, 1), hi = some_float(rng, lo, lo + 1);
        for (float &v : src.values())
            v = some_float(rng, lo - 0.1f * (hi - lo), hi + 0.1f * (hi - lo));
        cmap_f32_to_rgb_plain(pal, src.data(), n, due, lo, hi);
        cmap_f32_to_rgb_simd(pal, src.data(), n, got, lo, hi);
    });
}
