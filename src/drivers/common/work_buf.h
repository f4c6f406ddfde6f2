// Working memory of a driver that grows to what the largest frame needs and then stays.
#pragma once

#include <cstdint>
#include <cstdlib>

struct work_buf_t {
    void *data = nullptr;
    size_t size = 0; // bytes

    work_buf_t() = default;
    ~work_buf_t() { release(); }
    work_buf_t(const work_buf_t &) = delete;
    work_buf_t &operator=(const work_buf_t &) = delete;

    // Makes room for n bytes; a larger buffer is a new one of zeroes, and what was there is lost. False when
    // out of memory, with nothing held.
    bool need(size_t n)
    {
        if (data && size >= n)
            return true;
        release();
        data = calloc(n ? n : 1, 1);
        size = data ? n : 0;
        return data != nullptr;
    }
    void release()
    {
        free(data);
        data = nullptr;
        size = 0;
    }
    template <typename T> T *as() const { return static_cast<T *>(data); }
};
