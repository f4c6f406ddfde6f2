// The vector forms of the colour conversion against their plain forms, in every layout of the output.
#include "support/kernel_check.h"

#include <cmath>
#include <vector>

#include "image/cmap_kernels.h"

// Where the channels of the first pixel stand in a buffer for n pixels.
struct layout_t {
    const char *what;
    int r, g, b, planes; // in bytes, and in whole planes of n
    int stride;
};
static const layout_t kLayouts[] = {
    {"RGB", 0, 1, 2, 0, 3},    {"BGR", 2, 1, 0, 0, 3},        {"RGBA", 0, 1, 2, 0, 4},
    {"ARGB", 1, 2, 3, 0, 4},   {"GBRA", 2, 0, 1, 0, 4},       {"spread", 0, 2, 4, 0, 7},
    {"planes", 0, 1, 2, 1, 1}, {"same place", 0, 0, 1, 0, 3}, {"overlapping", 0, 1, 2, 0, 1}};

using bytes_t = Guarded<uint8_t>;

static rgb_out_t place(bytes_t &room, const layout_t &l, int n)
{
    const int unit = l.planes ? n : 1;
    return {room.data() + l.r * unit, room.data() + l.g * unit, room.data() + l.b * unit, l.stride};
}

static size_t room_for(const layout_t &l, int n)
{
    return l.planes ? 3 * (size_t)n : (size_t)(l.stride * (n - 1) + std::max({l.r, l.g, l.b}) + 1);
}

static const palette_row_t *some_palette(KernelRng &rng)
{
    return tq_cmap_palettes[rng.below(kPaletteCount)];
}

template <typename F> static void for_each_case(KernelRng &rng, F check)
{
    for (int n = 1; n <= 140; n += n < 80 ? 1 : 13) {
        for (const layout_t &l : kLayouts) {
            bytes_t plain(room_for(l, n), rng.below(64)), vector(room_for(l, n), rng.below(64));
            check(l, n, plain, vector);
        }
    }
}

TEST(ColourKernels, U16)
{
    KernelRng rng;
    for_each_target([&] {
        for_each_case(rng, [&](const layout_t &l, int n, bytes_t &plain, bytes_t &vector) {
            Guarded<uint16_t> src((size_t)n, rng.below(64));
            fill_samples(rng, src.values());
            const uint16_t ends[] = {0, 1, (uint16_t)rng.bits(), (uint16_t)(src[0] - rng.below(9)), 65535};
            const uint16_t lo = ends[rng.below(5)], hi = ends[rng.below(5)];
            const palette_row_t *pal = some_palette(rng);
            cmap_u16_to_rgb_plain(pal, src.data(), n, place(plain, l, n), lo, hi);
            cmap_u16_to_rgb_simd(pal, src.data(), n, place(vector, l, n), lo, hi);
            ASSERT_TRUE(same_bits(plain, vector, 3)) << l.what << " " << n << " range " << lo << "-" << hi;

            if (rng.below(4) != 0)
                return;
            const rgb_out_t out = place(vector, l, n);
            std::vector<uint32_t> tbl((size_t)cmap_table_last(lo, hi) + 1);
            memset(vector.data(), 0x11, vector.size());
            memset(plain.data(), 0x11, plain.size());
            cmap_u16_to_rgb_plain(pal, src.data(), n, place(plain, l, n), lo, hi);
            cmap_make_table_simd(pal, cmap_order(out), lo, hi, tbl.data());
            cmap_by_table_simd(tbl.data(), src.data(), n, out, lo, hi);
            ASSERT_TRUE(same_bits(plain, vector, 3)) << l.what << " " << n << " by table " << lo << "-" << hi;
        });
    });
}

TEST(ColourKernels, F32)
{
    KernelRng rng;
    for_each_target([&] {
        for_each_case(rng, [&](const layout_t &l, int n, bytes_t &plain, bytes_t &vector) {
            static const float odd[] = {NAN,    INFINITY, -INFINITY, 0.0f, -0.0f,
                                        1e-40f, 3e38f,    -3e38f,    1.0f, 65535.0f};
            Guarded<float> src((size_t)n, rng.below(16));
            const float lo = rng.below(8) ? rng.unit() : odd[rng.below(10)];
            const float hi = rng.below(8) ? lo + rng.unit() : odd[rng.below(10)];
            for (float &v : src.values())
                v = rng.below(8) ? lo + (hi - lo) * (rng.unit() * 1.2f - 0.1f) : odd[rng.below(10)];
            const palette_row_t *pal = some_palette(rng);
            cmap_f32_to_rgb_plain(pal, src.data(), n, place(plain, l, n), lo, hi);
            cmap_f32_to_rgb_simd(pal, src.data(), n, place(vector, l, n), lo, hi);
            ASSERT_TRUE(same_bits(plain, vector, 3)) << l.what << " " << n << " range " << lo << "-" << hi;
        });
    });
}
