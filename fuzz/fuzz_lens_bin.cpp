// Reads the input as a binary lens file and touches all that it claims to hold.
#include "memory_file.h"
#include "tqcam_param.h"

static volatile uint8_t sink;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const memory_file file(data, size);
    tq_lens_bin_t *lens = tqcam_param_len_load_bin_file(file.name());
    if (lens) {
        const uint8_t *end = tq_lens_bin_reflect(lens) + 4 * static_cast<size_t>(lens->n_reflect);
        for (const uint8_t *p = tq_lens_bin_grad(lens); p < end; p++)
            sink = *p;
    }
    tqcam_param_len_unload(lens);
    return 0;
}
