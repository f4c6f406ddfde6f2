// How the library itself logs: a line under the name of the function that writes it, to the default logger.
// The threshold is tested before anything is formatted, so that a trace call in the frame path costs two
// comparisons and no argument reaches a formatter.
#pragma once

#include "tq_log.h"

// Thresholds may be set while other threads log; a line meets the old threshold or the new one. The words are
// plain in the public C structure, so that they are read and written through these.
inline uint32_t log_level(const tq_log_t *log, int sink)
{
    return __atomic_load_n(&log->level[sink], __ATOMIC_RELAXED);
}

inline bool log_ready(const tq_log_t *log)
{
    return __atomic_load_n(&log->ready, __ATOMIC_RELAXED) != 0;
}

inline bool log_passes(uint32_t level)
{
    const tq_log_t *log = tq_log_default();
    return log_ready(log) &&
           (log_level(log, TQ_LOG_CONSOLE) <= level || log_level(log, TQ_LOG_FILE) <= level);
}

// The text begins with "[%s]", for the function's name, which is given here and not by the caller.
#define LOG_AS(level, tag, name, fmt, ...)                                                                   \
    do {                                                                                                     \
        if (log_passes(level))                                                                               \
            tq_log(nullptr, level, tag, fmt, name __VA_OPT__(, ) __VA_ARGS__);                               \
    } while (0)

#define LOG_TRACE(fmt, ...) LOG_AS(0, "TRC", __func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_DEBUG(fmt, ...) LOG_AS(1, "DBG", __func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_DEBUG2(fmt, ...) LOG_AS(2, "DBG", __func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_INFO(fmt, ...) LOG_AS(4, "INF", __func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_WARN(fmt, ...) LOG_AS(5, "WRN", __func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_ERROR(fmt, ...) LOG_AS(6, "ERR", __func__, fmt __VA_OPT__(, ) __VA_ARGS__)
