// Where a driver's lens parameters come from: a file beside the device's other files, the calibration, or the
// driver's own record; and how they fit a frame.
#pragma once

#include <mutex>

#include "tqcam.h"
#include "tqcam_param.h"

// A driver's own record, shared by its devices; a lens file overwrites it.
struct lens_default_t {
    std::mutex lock; // inside the calibration mutex, if both
    tqcam_lens_param_t rec;
};

// Looks for lens files, with the device's number in the name before those without, binary before text. A
// binary one goes to *bin, owned by the caller, and into the driver's record; a text one into that record
// alone. True for a text file.
bool lens_search(tqcam_dev_t *dev, lens_default_t *def, tq_lens_bin_t **bin);

tqcam_lens_param_t lens_default_get(lens_default_t *def);
tqcam_lens_param_t lens_of_bin(const tq_lens_bin_t *bin);

// The lens for frames of w x h pixels; false with a line when its own size isn't a whole multiple of that.
bool lens_scale(const tqcam_lens_param_t &rec, int w, int h, tqcam_lens_param_t *out, const char *caller);

// Calibrations are loaded anew with every change of frequency while other threads read the lens tables that
// they brought. A table therefore stays until the device closes, and the same table is kept once.
struct lens_pool_t {
    struct node_t {
        tq_lens_bin_t *lens;
        node_t *next;
    };
    node_t *head = nullptr;

    lens_pool_t() = default;
    ~lens_pool_t();
    lens_pool_t(const lens_pool_t &) = delete;
    lens_pool_t &operator=(const lens_pool_t &) = delete;

    // Takes lens over and gives back the one to use; nullptr for nullptr.
    const tq_lens_bin_t *keep(tq_lens_bin_t *lens);
};
