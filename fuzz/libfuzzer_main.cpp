// A target where libFuzzer calls it.
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz({data, size});
    return 0;
}
