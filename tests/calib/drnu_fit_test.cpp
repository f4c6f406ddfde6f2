#include <vector>

#include "calib/drnu_fit.h"
#include "support/kernel_check.h"

TEST(DrnuFit, AllFormsGiveTheSameBits)
{
    KernelRng rng;
    for_each_target([&] {
        for (int count = 1; count <= DRNU_TILE; count += count < 70 ? 1 : 41) {
            const int n = 2 + static_cast<int>(rng.below(20));
            const size_t first = rng.below(9);
            const size_t stride = 20 + 2 * (first + static_cast<size_t>(count));
            // Images that end with the last pixel: a vector beyond it would read outside.
            std::vector<uint16_t> images((stride * static_cast<size_t>(n) - 20) / 2);
            fill_samples(rng, images);
            std::vector<float> y(static_cast<size_t>(n) * DRNU_TILE), work(y.size());
            for (float &v : y)
                v = 12491 * rng.unit();
            const drnu_fit_t fit{reinterpret_cast<const uint8_t *>(images.data()),
                                 stride,
                                 n,
                                 static_cast<int>(rng.below(static_cast<uint32_t>(n) + 1)),
                                 34.9f + 12491 * rng.unit(),
                                 y.data(),
                                 rng.below(2) != 0};
            Guarded<float> plain[3] = {{static_cast<size_t>(count), 0},
                                       {static_cast<size_t>(count), 1},
                                       {static_cast<size_t>(count), 2}};
            Guarded<float> vector[3] = {{static_cast<size_t>(count), 3},
                                        {static_cast<size_t>(count), 1},
                                        {static_cast<size_t>(count), 7}};
            drnu_fit_tile_plain(&fit, first, count, work.data(), plain[0].data(), plain[1].data(),
                                plain[2].data());
            drnu_fit_tile(&fit, first, count, work.data(), vector[0].data(), vector[1].data(),
                          vector[2].data());
            for (int i = 0; i < 3; i++)
                ASSERT_TRUE(same_bits(plain[i], vector[i], static_cast<size_t>(count)))
                    << "n=" << n << " out=" << i;
        }
    });
}
