#include "drivers/imx/imx_kernels.h"

static int16_t _signed12(uint32_t v)
{
    return static_cast<int16_t>(static_cast<int16_t>(v << 4) >> 4);
}

void imx_unpack_plain(int16_t *out, const uint8_t *packed, size_t n)
{
    for (size_t k = 0; k + 4 <= n; k += 4, packed += 6) {
        out[k] = _signed12(packed[0] | packed[1] << 8);
        out[k + 1] = _signed12(packed[1] >> 4 | packed[2] << 4);
        out[k + 2] = _signed12(packed[3] | packed[4] << 8);
        out[k + 3] = _signed12(packed[4] >> 4 | packed[5] << 4);
    }
}

void imx_words_plain(int16_t *out, uint8_t *bad, const uint8_t *words, size_t n)
{
    for (size_t k = 0; k < n; k++, words += 2) {
        // As stored the low byte comes first; turned round, bits 4 to 14 are the value.
        const uint32_t swapped = static_cast<uint32_t>(words[0]) << 8 | words[1];
        out[k] = static_cast<int16_t>(static_cast<int16_t>((swapped >> 4 & 0x7FF) << 5) >> 5);
        bad[k] |= words[0] >> 7;
    }
}
