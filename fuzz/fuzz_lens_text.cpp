// Reads the input as a lens file of numbers.
#include "fuzz_input.h"
#include "tqcam_param.h"

void fuzz(fuzz_input in)
{
    tqcam_lens_param_t lens;
    if (tqcam_param_len_load_2d_file(&lens, memory_file(in).name.data()))
        require(lens.img_w >= 1 && lens.img_h >= 1 && lens.n_dcoef >= 0 && lens.n_dcoef <= 14);
}
