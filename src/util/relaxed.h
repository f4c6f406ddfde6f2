// A word that threads share without a lock by design: each access is whole, none orders another. A reader may
// see a value one event late, and every place that reads one is written to live with that.
#pragma once

#include <atomic>

template <typename T> struct relaxed_t {
    std::atomic<T> word{};

    operator T() const { return word.load(std::memory_order_relaxed); }
    T operator=(T value)
    {
        word.store(value, std::memory_order_relaxed);
        return value;
    }
    T operator+=(T value) { return word.fetch_add(value, std::memory_order_relaxed) + value; }
    T operator++() { return *this += 1; }
};
