// Opens the input as a camera's recording and plays a little of it.
#include <atomic>
#include <chrono>
#include <thread>
#include <unistd.h>

#include "link/link_ops.h"
#include "memory_file.h"
#include "tq_stream.h"

// Where a recording's calibration goes.
static void move_away()
{
    static char dir[] = "/tmp/tqcam-fuzz-XXXXXX";
    if (!mkdtemp(dir) || chdir(dir) != 0)
        abort();
}

static void on_rx(tqcam_ll_dev_t *, int32_t code, const void *data, uint32_t len, void *arg)
{
    uint32_t sum = 0;
    for (uint32_t i = 0; i < len; i++)
        sum += static_cast<const uint8_t *>(data)[i];
    if (code != 0 || sum == UINT32_MAX)
        *static_cast<std::atomic<bool> *>(arg) = true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool moved = (move_away(), true);
    (void)moved;
    memory_file file(data, size);
    tqcam_ll_dev_t dev = {};
    dev.address.if_type = TQCAM_IF_FILE;
    dev.address.file.path = file.name();
    if (file_ll_ops.dev_open(&dev)) {
        tqcam_ll_param_t all[32] = {};
        for (uint8_t i = 0; i < 32; i++)
            all[i].id = i;
        dev.ops->param_get(&dev, all, 32);
        std::atomic<bool> ended{false};
        dev.ops->cap_start(&dev, size & 1, on_rx, &ended);
        dev.ops->cap_seek(&dev, 1, 0);
        for (int i = 0; i < 10 && !ended; i++) {
            dev.ops->cap_wait(&dev);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        dev.ops->cap_stop(&dev);
        file_ll_ops.dev_close(&dev);
    }
    return 0;
}
