// A mutex of a driver's private record, and the scope that holds it.
#pragma once

#include <pthread.h>

struct drv_mutex_t {
    pthread_mutex_t m;

    bool init() { return pthread_mutex_init(&m, nullptr) == 0; }
    void destroy() { pthread_mutex_destroy(&m); }
};

class DrvLock {
  public:
    explicit DrvLock(drv_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_.m); }
    ~DrvLock() { pthread_mutex_unlock(&mutex_.m); }
    DrvLock(const DrvLock &) = delete;
    DrvLock &operator=(const DrvLock &) = delete;

  private:
    drv_mutex_t &mutex_;
};
