// Reads the input as a binary lens file and touches all that it claims to hold.
#include "fuzz_input.h"
#include "tqcam_param.h"

void fuzz(fuzz_input in)
{
    tq_lens_bin_t *lens = tqcam_param_len_load_bin_file(memory_file(in).name.data());
    if (lens) {
        touch(tq_lens_bin_grad(lens), 4 * static_cast<size_t>(lens->n_grad));
        touch(tq_lens_bin_reflect(lens), 4 * static_cast<size_t>(lens->n_reflect));
    }
    tqcam_param_len_unload(lens);
}
