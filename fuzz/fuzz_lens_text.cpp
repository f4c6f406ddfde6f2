// Reads the input as a lens file of numbers.
#include "memory_file.h"
#include "tqcam_param.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const memory_file file(data, size);
    tqcam_lens_param_t lens;
    if (tqcam_param_len_load_2d_file(&lens, file.name()) &&
        (lens.img_w < 1 || lens.img_h < 1 || lens.n_dcoef < 0 || lens.n_dcoef > 14))
        std::abort();
    return 0;
}
