// Opens the input as a camera's recording and plays a little of it.
#include <atomic>
#include <chrono>
#include <thread>

#include "fuzz_input.h"
#include "link/link_ops.h"

void fuzz(fuzz_input in)
{
    const TempDir dir; // where a recording's calibration goes
    memory_file file(in);
    tqcam_ll_dev_t dev = {};
    dev.address.if_type = TQCAM_IF_FILE;
    dev.address.file.path = file.name.data();
    if (!file_ll_ops.dev_open(&dev))
        return;
    tqcam_ll_param_t all[32] = {};
    for (uint8_t i = 0; i < 32; i++)
        all[i].id = i;
    dev.ops->param_get(&dev, all, 32);
    std::atomic<bool> ended{false};
    const auto on_rx = [](tqcam_ll_dev_t *, int32_t code, const void *data, uint32_t len, void *arg) {
        touch(data, len);
        *static_cast<std::atomic<bool> *>(arg) = code != 0;
    };
    dev.ops->cap_start(&dev, in.size & 1, on_rx, &ended);
    dev.ops->cap_seek(&dev, 1, 0);
    for (int i = 0; i < 10 && !ended; i++) {
        dev.ops->cap_wait(&dev);
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    dev.ops->cap_stop(&dev);
    file_ll_ops.dev_close(&dev);
}
