// The colours of a range of u16 values, which a map keeps while palette and range stay: an image then costs
// one lookup a pixel.
#pragma once

#include <cstdint>

#include "image/cmap_kernels.h"
#include "tq_cmap.h"

class cmap_locked_t {
  public:
    explicit cmap_locked_t(tq_cmap_t *m) : lock_(&m->lock) { pthread_mutex_lock(lock_); }
    ~cmap_locked_t() { pthread_mutex_unlock(lock_); }
    cmap_locked_t(const cmap_locked_t &) = delete;
    cmap_locked_t &operator=(const cmap_locked_t &) = delete;

  private:
    pthread_mutex_t *lock_;
};

struct colour_table_t {
    int users; // under the map's lock: the map itself and the conversions that read it
    uint32_t palette;
    uint16_t vmin, vmax;
    rgb_order_t order;
    uint32_t colours[1]; // and on
};

// The table for a conversion of n values, made if it must be and if that is less work than the conversion;
// else, and when out of memory, nullptr.
colour_table_t *colour_table_take(tq_cmap_t *m, uint32_t palette, uint16_t vmin, uint16_t vmax,
                                  const rgb_order_t &order, int n);
void colour_table_release(tq_cmap_t *m, colour_table_t *table);
