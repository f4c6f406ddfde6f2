// The logger: thresholds, the line's prefix, the two sinks and the rotation of the file. Its own failures go
// to standard error (a failed rename to standard output), never through itself.
#include "log/log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <pthread.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

struct log_priv_t {
    pthread_mutex_t lock; // the file, its rotation, and the breaking down of the time
    uint8_t rotate_on;
    uint64_t rotate_size; // bytes
    char *rotate_name;    // owned
    uint8_t is_tty;       // standard output is a terminal
};

namespace {
constexpr size_t PREFIX_MAX = 128;
constexpr const char *COLOUR_END = "\033[0m";

tq_log_t g_default;

tq_log_t *_instance(tq_log_t *log)
{
    return log != nullptr ? log : &g_default;
}

log_priv_t *_priv(const tq_log_t *log)
{
    return static_cast<log_priv_t *>(log->priv);
}

class log_guard_t {
  public:
    explicit log_guard_t(tq_log_t *log) : lock_(&_priv(log)->lock) { pthread_mutex_lock(lock_); }
    ~log_guard_t() { pthread_mutex_unlock(lock_); }
    log_guard_t(const log_guard_t &) = delete;
    log_guard_t &operator=(const log_guard_t &) = delete;

  private:
    pthread_mutex_t *lock_;
};

[[noreturn]] void _out_of_memory()
{
    std::fputs("malloc failed\n", stderr);
    std::exit(-3);
}

const char *_colour(uint32_t level)
{
    static const char *const table[] = {"\033[36;1m", "\033[37m",   "\033[37;1m", "\033[30;1m",
                                        "\033[35;1m", "\033[33;1m", "\033[31;1m", ""};
    return level < 8 ? table[level] : "\033[31;1m";
}

// The file's presence is looked at before the lock is taken; whoever writes looks again under it.
FILE *_file(const tq_log_t *log)
{
    return __atomic_load_n(&log->file, __ATOMIC_RELAXED);
}

void _set_file(tq_log_t *log, FILE *file)
{
    __atomic_store_n(&log->file, file, __ATOMIC_RELAXED);
}

bool _flush_wanted(const tq_log_t *log, int sink)
{
    return __atomic_load_n(&log->flush[sink], __ATOMIC_RELAXED) != 0;
}

void _make_prefix(tq_log_t *log, const char *tag, char *prefix)
{
    const unsigned thread = static_cast<unsigned>(syscall(SYS_gettid));
    struct timeval now = {};
    struct tm local = {};
    {
        log_guard_t guard(log);
        gettimeofday(&now, nullptr);
        localtime_r(&now.tv_sec, &local);
    }
    std::snprintf(prefix, PREFIX_MAX, "%04u%02u%02u %02u:%02u:%02u.%03u[%u][%s]",
                  static_cast<unsigned>(local.tm_year + 1900), static_cast<unsigned>(local.tm_mon + 1),
                  static_cast<unsigned>(local.tm_mday), static_cast<unsigned>(local.tm_hour),
                  static_cast<unsigned>(local.tm_min), static_cast<unsigned>(local.tm_sec),
                  static_cast<unsigned>(now.tv_usec / 1000), thread, tag != nullptr ? tag : log->tag);
}

void _write_console(tq_log_t *log, uint32_t level, const char *prefix, const char *fmt, va_list args)
{
    const bool tty = _priv(log)->is_tty != 0;
    if (tty)
        std::printf("%s%s", _colour(level), prefix);
    else
        std::fputs(prefix, stdout);
    std::vprintf(fmt, args);
    if (tty)
        std::fputs(COLOUR_END, stdout);
    if (_flush_wanted(log, TQ_LOG_CONSOLE))
        std::fflush(stdout);
}

// True when the file has outgrown its limit. Called with the lock held.
bool _rotation_due(const tq_log_t *log)
{
    const log_priv_t *priv = _priv(log);
    if (log->file == nullptr || !priv->rotate_on || priv->rotate_name == nullptr)
        return false;
    const off_t at = ftello(log->file);
    return at >= 0 && static_cast<uint64_t>(at) > priv->rotate_size;
}

// Returns whether a rotation is due now.
bool _write_file(tq_log_t *log, const char *prefix, const char *fmt, va_list args)
{
    log_guard_t guard(log);
    if (log->file == nullptr)
        return false; // a reload on another thread failed meanwhile
    std::fputs(prefix, log->file);
    std::vfprintf(log->file, fmt, args);
    if (_flush_wanted(log, TQ_LOG_FILE))
        std::fflush(log->file);
    return _rotation_due(log);
}

// Called with the lock held and a file open.
void _reload(tq_log_t *log, int truncate)
{
    const log_priv_t *priv = _priv(log);
    const bool rotate = _rotation_due(log);
    std::fclose(log->file);
    if (rotate) {
        std::remove(priv->rotate_name);
        const int r = std::rename(log->fname, priv->rotate_name);
        if (r != 0)
            std::printf("rename log to %s failed: r=%d\n", priv->rotate_name, r);
    }
    _set_file(log, std::fopen(log->fname, truncate ? "wb" : "ab"));
    if (log->file == nullptr)
        std::fprintf(stderr, "cannot reopen file %s for write\n", log->fname);
}

// Gives back all that the instance owns and clears it.
void _clear(tq_log_t *log)
{
    if (log->file != nullptr)
        std::fclose(log->file);
    std::free(log->fname);
    std::free(log->priv);
    *log = tq_log_t{};
}
} // namespace

tq_log_t *tq_log_default(void)
{
    return &g_default;
}

tq_log_t *tq_log_init(tq_log_t *log, const char *fname, const char *tag)
{
    log = _instance(log);
    // Any other instance may be fresh memory, but this one is known to hold a file or nothing.
    if (log == &g_default)
        tq_log_uninit(log);
    *log = tq_log_t{};
    log->level[TQ_LOG_CONSOLE] = TQ_LOG_WARN;
    log->level[TQ_LOG_FILE] = TQ_LOG_DEBUG;
    log->level[TQ_LOG_SPARE] = TQ_LOG_SILENT;
    if (fname != nullptr) {
        log->file = std::fopen(fname, "ab");
        if (log->file == nullptr) {
            std::fprintf(stderr, "cannot open file %s for write\n", fname);
            *log = tq_log_t{};
            return nullptr;
        }
        log->fname = strdup(fname);
        if (log->fname == nullptr)
            _out_of_memory();
    } else {
        log->level[TQ_LOG_FILE] = TQ_LOG_SILENT;
    }
    std::snprintf(log->tag, sizeof log->tag, "%s", tag != nullptr ? tag : "NONE");
    log->priv = std::calloc(1, sizeof(log_priv_t));
    if (log->priv == nullptr)
        _out_of_memory();
    _priv(log)->is_tty = isatty(1) != 0;
    if (pthread_mutex_init(&_priv(log)->lock, nullptr) != 0) {
        std::fputs("mutex create failed\n", stderr);
        _clear(log);
        return nullptr;
    }
    __atomic_store_n(&log->ready, 1, __ATOMIC_RELEASE);
    return log;
}

void tq_log_uninit(tq_log_t *log)
{
    log = _instance(log);
    __atomic_store_n(&log->ready, 0, __ATOMIC_RELAXED);
    if (log->priv != nullptr) {
        std::free(_priv(log)->rotate_name);
        pthread_mutex_destroy(&_priv(log)->lock);
    }
    _clear(log);
}

int tq_log_cfg(tq_log_t *log, int sink, uint32_t level, uint8_t flush)
{
    log = _instance(log);
    if (sink < 0 || sink >= TQ_LOG_SINKS)
        return 0;
    __atomic_store_n(&log->flush[sink], flush, __ATOMIC_RELAXED);
    if (sink == TQ_LOG_FILE && _file(log) == nullptr)
        return 0;
    __atomic_store_n(&log->level[sink], level, __ATOMIC_RELAXED);
    return 1;
}

int tq_log_rotate_enable(tq_log_t *log, const char *rotate_name, uint64_t size)
{
    log = _instance(log);
    if (!log_ready(log) || rotate_name == nullptr)
        return 0;
    char *name = strdup(rotate_name);
    if (name == nullptr)
        return 0;
    log_guard_t guard(log);
    log_priv_t *priv = _priv(log);
    std::free(priv->rotate_name);
    priv->rotate_name = name;
    priv->rotate_size = size;
    priv->rotate_on = 1;
    return 1;
}

void tq_log_rotate_disable(tq_log_t *log)
{
    log = _instance(log);
    if (!log_ready(log))
        return;
    log_guard_t guard(log);
    log_priv_t *priv = _priv(log);
    priv->rotate_on = 0;
    std::free(priv->rotate_name);
    priv->rotate_name = nullptr;
}

void tq_log_reload(tq_log_t *log, int truncate)
{
    log = _instance(log);
    if (!log_ready(log))
        return;
    log_guard_t guard(log);
    if (log->file != nullptr)
        _reload(log, truncate);
}

void tq_log_vfprintf(tq_log_t *log, uint32_t level, int raw, const char *tag, const char *fmt, va_list args)
{
    log = _instance(log);
    if (!log_ready(log))
        return;
    const bool console = log_level(log, TQ_LOG_CONSOLE) <= level;
    const bool file = log_level(log, TQ_LOG_FILE) <= level && _file(log) != nullptr;
    if (!console && !file)
        return;

    char prefix[PREFIX_MAX] = "";
    if (!raw)
        _make_prefix(log, tag, prefix);
    va_list copy; // each sink walks the arguments once
    if (console) {
        va_copy(copy, args);
        _write_console(log, level, prefix, fmt, copy);
        va_end(copy);
    }
    if (file) {
        va_copy(copy, args);
        const bool due = _write_file(log, prefix, fmt, copy);
        va_end(copy);
        if (due) {
            // Another thread that crossed the limit too may have rotated meanwhile: what was written to the
            // new file since then must not be truncated away.
            log_guard_t guard(log);
            if (_rotation_due(log))
                _reload(log, 1);
        }
    }
}

void tq_log_fprintf(tq_log_t *log, uint32_t level, int raw, const char *tag, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    tq_log_vfprintf(log, level, raw, tag, fmt, args);
    va_end(args);
}

void tq_log(tq_log_t *log, uint32_t level, const char *tag, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    tq_log_vfprintf(log, level, 0, tag, fmt, args);
    va_end(args);
}

void tq_log_raw(tq_log_t *log, uint32_t level, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    tq_log_vfprintf(log, level, 1, nullptr, fmt, args);
    va_end(args);
}
