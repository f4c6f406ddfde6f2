#include <algorithm>

#include "tq_math.h"

uint16_t tq_math_get_median_i16(const int16_t *v, int n)
{
    const auto count = static_cast<uint8_t>(n);
    if (count == 0)
        return 0;
    int16_t sorted[255];
    std::copy_n(v, count, sorted);
    std::nth_element(sorted, sorted + count / 2, sorted + count);
    return static_cast<uint16_t>(sorted[count / 2]);
}
