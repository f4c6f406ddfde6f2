/* The logger: every function of the library logs through it under its own name, to standard output, to a
 * file, or both, each with its own threshold.
 *
 * A NULL logger always means the default instance, which tqcam_init starts and tqcam_uninit stops. Every
 * function may be called from any thread once its instance is initialised; initialising, configuring and
 * uninitialising are for one thread at a time. Failures go to standard error, never through the log. */
#ifndef TQ_LOG_H
#define TQ_LOG_H

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#include "tqcam_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Levels: what a line carries, and what a sink lets pass (its threshold and all above). */
enum {
    TQ_LOG_TRACE = 0, /* per packet and per step */
    TQ_LOG_DEBUG = 1, /* per frame and per call */
    TQ_LOG_DEBUG2 = 2,
    TQ_LOG_DEBUG3 = 3,
    TQ_LOG_INFO = 4,
    TQ_LOG_WARN = 5,
    TQ_LOG_ERROR = 6,
    TQ_LOG_SILENT = 7 /* as a threshold only: lets no line pass */
};

enum { TQ_LOG_CONSOLE = 0, TQ_LOG_FILE = 1, TQ_LOG_SPARE = 2, TQ_LOG_SINKS = 3 };

/* One logger. Treat the fields as read-only. */
typedef struct tq_log_t {
    FILE *file;                   /* log file, NULL when none */
    char *fname;                  /* its name, owned */
    char tag[32];                 /* tag of lines that bring none */
    uint32_t level[TQ_LOG_SINKS]; /* threshold for each sink */
    uint8_t flush[TQ_LOG_SINKS];  /* flush after each line */
    uint8_t ready;                /* the instance is usable */
    void *priv;                   /* owned */
} tq_log_t;

/* The instance that the library itself uses. Never NULL. */
TQCAM_API tq_log_t *tq_log_default(void);

/* Starts an instance: console threshold 5; file threshold 1, or 7 without a file.
 *
 * fname  log file, opened for appending; NULL for none
 * tag    at most 31 characters are kept; NULL gives "NONE"
 *
 * Returns the instance, or NULL when the file or the lock can't be made. Ends the process with status -3
 * when out of memory. */
TQCAM_API tq_log_t *tq_log_init(tq_log_t *log, const char *fname, const char *tag);

/* Closes the file and clears the instance; what is logged afterwards is ignored. */
TQCAM_API void tq_log_uninit(tq_log_t *log);

/* Sets threshold and flush of a sink. Returns 1; 0 when the sink has no file to write to or does not exist.
 */
TQCAM_API int tq_log_cfg(tq_log_t *log, int sink, uint32_t level, uint8_t flush);

/* Keeps the log file near size bytes: once past it, the file moves to rotate_name, replacing what was there,
 * and a new one begins. Returns 1, or 0 when the instance isn't ready or out of memory. */
TQCAM_API int tq_log_rotate_enable(tq_log_t *log, const char *rotate_name, uint64_t size);
TQCAM_API void tq_log_rotate_disable(tq_log_t *log);

/* Closes and reopens the log file, rotating it first when it is due; truncate 0 appends to what is there. */
TQCAM_API void tq_log_reload(tq_log_t *log, int truncate);

/* Writes one line: prefix and text; no newline is added. tag NULL takes the instance's. A line below both
 * thresholds costs two comparisons. */
TQCAM_API void tq_log(tq_log_t *log, uint32_t level, const char *tag, const char *fmt, ...)
    TQCAM_PRINTF(4, 5);

/* The same without a prefix. */
TQCAM_API void tq_log_raw(tq_log_t *log, uint32_t level, const char *fmt, ...) TQCAM_PRINTF(3, 4);

/* Both in one: raw other than 0 leaves the prefix out. */
TQCAM_API void tq_log_fprintf(tq_log_t *log, uint32_t level, int raw, const char *tag, const char *fmt, ...)
    TQCAM_PRINTF(5, 6);
TQCAM_API void tq_log_vfprintf(tq_log_t *log, uint32_t level, int raw, const char *tag, const char *fmt,
                               va_list args) TQCAM_PRINTF(5, 0);

/* Dumps len bytes in hexadecimal and as characters, 16 a line. prefix 0 leaves the usual prefix out. */
TQCAM_API void tq_log_hex(tq_log_t *log, uint32_t level, const void *data, int len, int prefix);

/* Writes a block of memory as a quoted text, up to its first byte that isn't printable, in at most max_len
 * bytes. prefix as above. */
TQCAM_API void tq_log_memstr(tq_log_t *log, uint32_t level, const void *data, uint32_t len, uint32_t max_len,
                             int prefix);

#ifdef __cplusplus
}
#endif

#endif
