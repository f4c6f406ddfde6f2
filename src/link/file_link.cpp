#include "link/file_link.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <sys/prctl.h>
#include <unistd.h>

#include "log/log.h"
#include "tq_stream.h"

static_assert(sizeof(tqcam_frame_info_t) == 100 && sizeof(tq_stream_hdr_t) == 36);

namespace {

constexpr useconds_t IDLE_US = 300;       // between looks at stopped
constexpr useconds_t TRY_LOCK_US = 100;   // between tries for file_lock
constexpr uint32_t PACE_SLICE_US = 50000; // longest sleep without a look at exit
constexpr uint32_t PERMIT_WAIT_MS = 500;  // longest wait for a permit without a look at stopped
constexpr uint32_t FRAME_MARGIN = 2048;   // meta data of a frame whose size the file doesn't tell
constexpr uint16_t BARE_FMT = 256;        // from this format on the header carries no size and time
constexpr uint8_t HOLLOW_ROUNDS_MAX = 2;  // rounds without a frame that end a loop

file_ll_priv_t *_priv(tqcam_ll_dev_t *dev)
{
    return static_cast<file_ll_priv_t *>(dev->priv);
}

// ---- The event thread

// One frame on its way from the file to the callback.
struct replay_frame_t {
    uint8_t *buf;
    uint32_t buf_size;
    int size; // bytes in buf; 0 end of the file, negative an error
    uint32_t id;
    uint64_t ts_ms;
    tqcam_frame_info_t info;
    uint32_t run; // of which start it is
    bool again;   // at the end, the file was set back to its beginning
};

// Takes file_lock. False when the device is being closed, which joins this thread with the lock held.
bool _evt_lock_file(file_ll_priv_t *priv)
{
    while (!priv->exit) {
        if (pthread_mutex_trylock(&priv->file_lock) == 0)
            return true;
        usleep(TRY_LOCK_US);
    }
    return false;
}

// Bytes of the next frame as the file tells it, or 0.
uint32_t _told_frame_size(const file_ll_priv_t *priv)
{
    // One packet holds a frame; more is none of a camera's.
    return std::min<uint32_t>(priv->frame_info.frame_size, TQ_STREAM_LEN_MAX);
}

uint32_t _first_buf_size(file_ll_priv_t *priv)
{
    file_ll_locked_t lock(&priv->prop_lock);
    const tqcam_frame_info_t &info = priv->frame_info;
    if (info.frame_size != 0)
        return _told_frame_size(priv);
    const uint64_t pixels =
        std::min<uint64_t>(info.width, UINT16_MAX) * std::min<uint64_t>(info.height, UINT16_MAX);
    return static_cast<uint32_t>(
        std::min<uint64_t>(pixels * priv->subframes * 2 + FRAME_MARGIN, TQ_STREAM_LEN_MAX));
}

void _alloc_buf(replay_frame_t *f, uint32_t size)
{
    free(f->buf);
    f->buf = static_cast<uint8_t *>(malloc(size));
    f->buf_size = size;
    if (!f->buf) {
        LOG_AS(TQ_LOG_ERROR, "ERR", "_ll_event_loop", "[%s]malloc failed\n");
        exit(-3);
    }
}

// Makes room for a frame of so many bytes. The buffer never shrinks.
void _grow_buf(replay_frame_t *f, uint32_t size)
{
    if (size <= f->buf_size)
        return;
    LOG_AS(TQ_LOG_DEBUG, "DBG", "_ll_event_loop", "[%s]realloc ll_file single frame buffer: %u -> %u bytes\n",
           f->buf_size, size);
    _alloc_buf(f, size);
}

// Sleeps for one frame's time, in slices, so that a close need not wait for all of it.
void _pace(const file_ll_priv_t *priv, uint32_t fps)
{
    for (uint32_t left = 1000000 / fps; left > 0 && !priv->exit;) {
        const uint32_t slice = std::min(left, PACE_SLICE_US);
        usleep(slice);
        left -= slice;
    }
}

// Waits for a permit and takes it. False when there is none after a while, so that the caller may look at
// what else has changed, and on exit.
bool _wait_permit(file_ll_priv_t *priv)
{
    timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_nsec += PERMIT_WAIT_MS * 1000000;
    until.tv_sec += until.tv_nsec / 1000000000;
    until.tv_nsec %= 1000000000;

    file_ll_locked_t lock(&priv->wait_lock);
    if (!priv->wait_flag) {
        int rc = 0;
        while (rc == 0 && !priv->wait_flag && !priv->exit)
            rc = pthread_cond_timedwait(&priv->wait_cond, &priv->wait_lock, &until);
        if (!priv->wait_flag)
            return false;
        LOG_AS(TQ_LOG_TRACE, "TRC", "_ll_event_loop", "[%s]evt_loop get signal\n");
    }
    priv->wait_flag = 0;
    return true;
}

// Reads one frame, with file_lock held. What the file says ahead of it takes effect here, so the buffer grows
// between finding the frame and copying it.
void _read_frame_locked(file_ll_priv_t *priv, replay_frame_t *f)
{
    oni_istream_t *s = priv->stream;
    do {
        f->size = oni_istream_next(s);
    } while (f->size > 0 && s->reader->value_len == 0); // recorded without its bytes: none to lose
    f->run = priv->run;
    if (f->size <= 0)
        return;
    f->id = s->reader->frame_id;
    f->ts_ms = s->reader->timestamp / 1000;
    uint32_t need;
    {
        file_ll_locked_t lock(&priv->prop_lock);
        f->info = priv->frame_info;
        need = _told_frame_size(priv);
    }
    if (s->codec != ONI_CODEC_16ZT)
        need = std::max(need, s->reader->value_len); // held to the reader's buffer
    _grow_buf(f, need);
    f->size = oni_istream_deliver(s, f->buf, static_cast<int>(f->buf_size));
}

// At the end of the file, with file_lock held: back to its beginning, if the capture is to go on. A file that
// brings no frame in a whole round isn't gone round again.
bool _rewind_locked(file_ll_priv_t *priv)
{
    return priv->loop && ++priv->hollow_rounds < HOLLOW_ROUNDS_MAX &&
           oni_istream_seek_frame(priv->stream, 0, 0) >= 0;
}

bool _read_frame(file_ll_priv_t *priv, replay_frame_t *f)
{
    if (!_evt_lock_file(priv))
        return false;
    _read_frame_locked(priv, f);
    f->again = f->size <= 0 && _rewind_locked(priv);
    if (f->size > 0)
        priv->hollow_rounds = 0;
    pthread_mutex_unlock(&priv->file_lock);
    return true;
}

// Time of day in the stream header's form.
uint32_t _header_time(uint32_t sec, uint32_t usec)
{
    const time_t t = sec;
    struct tm tm;
    if (!gmtime_r(&t, &tm))
        return 0;
    return static_cast<uint32_t>(tm.tm_hour) | static_cast<uint32_t>(tm.tm_min) << 5 |
           static_cast<uint32_t>(tm.tm_sec) << 11 | (usec / 64) << 17;
}

tq_stream_hdr_t _make_header(const replay_frame_t *f)
{
    tq_stream_hdr_t hdr = {};
    hdr.magic = TQ_STREAM_MAGIC;
    hdr.stream_idx = static_cast<uint16_t>(f->id);
    hdr.len = static_cast<uint32_t>(f->size);
    hdr.frame.frame_len = static_cast<uint32_t>(f->size);
    hdr.frame.frame_idx = static_cast<uint16_t>(f->id);
    hdr.frame.frame_fmt = f->info.frame_format;
    hdr.frame.aux = f->info.meta_size;
    hdr.flags0 = TQ_STREAM_BOUND;
    hdr.flags1 = f->info.meta_size != 0 ? TQ_STREAM_META : 0;
    if (f->info.frame_format < BARE_FMT) {
        hdr.frame.width = static_cast<uint16_t>(f->info.width);
        hdr.frame.height = static_cast<uint16_t>(f->info.height);
        hdr.frame.temp_cb = f->info.temp_cb;
        hdr.frame.temp_ib = f->info.temp_ib;
        hdr.frame.time = _header_time(f->info.time_sec, f->info.time_usec);
    }
    hdr.hdr_hash = tq_stream_hash16(&hdr, sizeof(hdr) - sizeof(hdr.hdr_hash), 0);
    return hdr;
}

// Hands a frame, or the end of the file, to the callback, unless its run was stopped meanwhile.
void _deliver(tqcam_ll_dev_t *dev, const replay_frame_t *f)
{
    file_ll_priv_t *priv = _priv(dev);
    file_ll_locked_t lock(&priv->rx_lock);
    if (priv->stopped || priv->run != f->run)
        return;
    if (f->size <= 0) {
        LOG_AS(TQ_LOG_DEBUG, "DBG", "_ll_event_loop", "[%s]stop capture: file EOF met\n");
        if (priv->on_rx)
            priv->on_rx(dev, TQCAM_ERR_CAP_EOF, f->buf, 0, priv->on_rx_arg);
        priv->stopped = 1;
        return;
    }
    if (!priv->on_rx)
        return;
    const tq_stream_hdr_t hdr = _make_header(f);
    priv->on_rx(dev, 0, &hdr, sizeof(hdr), priv->on_rx_arg);
    priv->on_rx(dev, 0, f->buf, static_cast<uint32_t>(f->size), priv->on_rx_arg);
    priv->frames_out++;
}

void _ll_event_loop(tqcam_ll_dev_t *dev)
{
    file_ll_priv_t *priv = _priv(dev);
    replay_frame_t f = {};
    _alloc_buf(&f, _first_buf_size(priv));
    bool permitted = false; // by a permit that only brought the end of the file
    while (!priv->exit) {
        if (priv->stopped) {
            permitted = false;
            usleep(IDLE_US);
            continue;
        }
        const uint32_t fps = priv->fps;
        if (fps != 0 && priv->sim_mode)
            _pace(priv, fps);
        else if (!permitted && !_wait_permit(priv))
            continue;
        if (priv->stopped || !_read_frame(priv, &f))
            continue;
        permitted = f.again;
        if (f.again) {
            LOG_DEBUG("[%s]rewind capture: file EOF met\n");
            continue;
        }
        if (f.size > 0) {
            if (static_cast<uint32_t>(f.size) < f.buf_size)
                LOG_TRACE("[%s]load frame with diff size: last size:%d cur_size=%d\n",
                          static_cast<int>(f.buf_size), f.size);
            LOG_TRACE("[%s]Get frame # %u @ %u ( %d bytes )\n", f.id, static_cast<unsigned>(f.ts_ms), f.size);
        }
        _deliver(dev, &f);
    }
    priv->running = 0;
    free(f.buf);
    LOG_DEBUG("[%s]Exit ll event loop...\n");
}

void *_file_ll_evt_thread(void *arg)
{
    tqcam_ll_dev_t *dev = static_cast<tqcam_ll_dev_t *>(arg);
    prctl(PR_SET_NAME, "LLFileEvtLoop");
    LOG_DEBUG("[%s]enter\n");
    _priv(dev)->running = 1;
    _ll_event_loop(dev);
    LOG_DEBUG("[%s]exit\n");
    return nullptr;
}

// ---- Open and close

void _make_lock(pthread_mutex_t *lock)
{
    if (pthread_mutex_init(lock, nullptr) != 0) {
        LOG_AS(TQ_LOG_ERROR, "ERR", "_file_ll_dev_priv_alloc", "[%s]pthread_mutex_init failed\n");
        exit(-1);
    }
}

file_ll_priv_t *_file_ll_dev_priv_alloc()
{
    file_ll_priv_t *priv = new (std::nothrow) file_ll_priv_t{};
    if (!priv) {
        LOG_ERROR("[%s]malloc failed\n");
        exit(-2);
    }
    priv->subframes = 4;
    priv->frame_info.frame_format = 2;
    priv->frame_info.width = 320;
    priv->frame_info.height = 240;
    priv->frame_info.temp_cb = 250;
    priv->frame_info.temp_ib = 250;
    priv->stopped = 1;
    _make_lock(&priv->file_lock);
    _make_lock(&priv->prop_lock);
    _make_lock(&priv->rx_lock);
    _make_lock(&priv->wait_lock);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (pthread_cond_init(&priv->wait_cond, &attr) != 0) {
        LOG_ERROR("[%s]pthread_cond_init failed\n");
        exit(-1);
    }
    pthread_condattr_destroy(&attr);
    return priv;
}

// With no event thread left.
void _file_ll_dev_priv_free(tqcam_ll_dev_t *dev)
{
    file_ll_priv_t *priv = _priv(dev);
    oni_reader_close(priv->reader);
    if (priv->calib_fp)
        fclose(priv->calib_fp);
    pthread_cond_destroy(&priv->wait_cond);
    for (pthread_mutex_t *lock : {&priv->wait_lock, &priv->rx_lock, &priv->prop_lock, &priv->file_lock})
        pthread_mutex_destroy(lock);
    delete priv;
    dev->priv = nullptr;
}

tqcam_ll_dev_t *_file_ll_dev_open(tqcam_ll_dev_t *dev)
{
    if (!dev || dev->address.if_type != TQCAM_IF_FILE)
        return nullptr;
    if (dev->priv) {
        LOG_ERROR("[%s]file dev is open already: %s\n", dev->address.file.path);
        return nullptr;
    }
    file_ll_priv_t *priv = _file_ll_dev_priv_alloc();
    dev->priv = priv;
    const char *path = dev->address.file.path ? dev->address.file.path : "";
    priv->reader = oni_reader_open(path, _fill_ll_on_get_property, dev);
    if (priv->reader && priv->calib_fp) {
        LOG_DEBUG("[%s]Extracted calib file `%s` from replay.\n", priv->calib_name);
        fclose(priv->calib_fp);
        priv->calib_fp = nullptr;
    }
    if (!priv->reader || !priv->stream) {
        LOG_ERROR("[%s]No replay stream found in %s\n", path);
        _file_ll_dev_priv_free(dev);
        return nullptr;
    }
    oni_reader_rewind(priv->reader);
    const tqcam_frame_info_t &info = priv->frame_info;
    LOG_DEBUG("[%s]open file dev: prod = %s, WxHxN = %dx%dx%d, modfreq=%u, max WxH=%ux%u\n", priv->product,
              static_cast<int>(info.width), static_cast<int>(info.height), static_cast<int>(priv->subframes),
              priv->mod_freq, priv->max_w, priv->max_h);
    priv->sim_mode = 1;
    LOG_DEBUG("[%s]  file replay set to sim mode\n");
    priv->exit = 0;
    priv->running = 0;
    if (pthread_create(&priv->thread, nullptr, _file_ll_evt_thread, dev) != 0) {
        LOG_ERROR("[%s] create evt thread failed\n");
        _file_ll_dev_priv_free(dev);
        return nullptr;
    }
    dev->ops = &file_ll_ops;
    return dev;
}

// ---- What the table answers by itself

bool _init()
{
    return true;
}

void _uninit() {}

void _set_debug(int) {}

tqcam_ll_dev_t *_dev_open_by_fd(tqcam_ll_dev_t *, int)
{
    return nullptr;
}

int _dev_list(tqcam_ll_dev_t *, int)
{
    return 0;
}

bool _exe_cmd(tqcam_ll_dev_t *, uint8_t, uint8_t, uint16_t, void *, uint32_t, uint32_t)
{
    return true;
}

int _tx_data(tqcam_ll_dev_t *, const void *, uint32_t)
{
    return 0;
}

void _cap_abort(tqcam_ll_dev_t *dev)
{
    if (file_ll_priv_t *priv = _priv(dev))
        priv->stopped = 1;
}

bool _dev_reset(tqcam_ll_dev_t *dev, uint8_t)
{
    if (file_ll_priv_t *priv = _priv(dev)) {
        file_ll_locked_t lock(&priv->file_lock);
        oni_reader_rewind(priv->reader);
    }
    return true;
}

bool _reg_write(tqcam_ll_dev_t *, uint8_t, uint32_t, const uint32_t *, uint16_t)
{
    return true;
}

bool _reg_read(tqcam_ll_dev_t *, uint8_t, uint32_t, uint32_t *, uint16_t)
{
    return true;
}

} // namespace

tqcam_ll_dev_t *file_ll_dev_open(tqcam_ll_dev_t *dev)
{
    return _file_ll_dev_open(dev);
}

void file_ll_dev_close(tqcam_ll_dev_t *dev)
{
    if (!dev || dev->address.if_type != TQCAM_IF_FILE)
        return;
    file_ll_priv_t *priv = _priv(dev);
    if (!priv) {
        LOG_DEBUG("[%s]device no need to closed!\n");
        return;
    }
    pthread_mutex_lock(&priv->file_lock);
    if (!priv->exit) {
        LOG_DEBUG("[%s]stop evt thread...\n");
        {
            file_ll_locked_t lock(&priv->wait_lock);
            priv->exit = 1;
            pthread_cond_broadcast(&priv->wait_cond);
        }
        pthread_join(priv->thread, nullptr);
    }
    oni_reader_close(priv->reader);
    priv->reader = nullptr;
    pthread_mutex_unlock(&priv->file_lock);
    _file_ll_dev_priv_free(dev);
}

bool file_ll_cap_start(tqcam_ll_dev_t *dev, uint32_t mode, tqcam_ll_rx_cb_t cb, void *arg)
{
    file_ll_priv_t *priv = _priv(dev);
    if (!priv)
        return false;
    file_ll_locked_t rx_lock(&priv->rx_lock);
    file_ll_locked_t lock(&priv->file_lock);
    if (priv->exit)
        return false;
    oni_reader_rewind(priv->reader);
    priv->on_rx = cb;
    priv->on_rx_arg = arg;
    priv->loop = mode == 1;
    priv->hollow_rounds = 0;
    priv->frames_out = 0;
    priv->run++;
    priv->stopped = 0;
    return true;
}

bool file_ll_cap_stop(tqcam_ll_dev_t *dev)
{
    file_ll_priv_t *priv = _priv(dev);
    if (!priv)
        return false;
    {
        file_ll_locked_t lock(&priv->file_lock);
        priv->stopped = 1;
        if (priv->exit)
            return false;
    }
    // Nothing of this run reaches the callback any more once this returns.
    if (!pthread_equal(pthread_self(), priv->thread))
        file_ll_locked_t wait(&priv->rx_lock);
    return true;
}

int file_ll_cap_seek(tqcam_ll_dev_t *dev, int offset, int origin)
{
    file_ll_priv_t *priv = _priv(dev);
    if (!priv)
        return -1;
    file_ll_locked_t lock(&priv->file_lock);
    if (priv->exit)
        return 0;
    priv->hollow_rounds = 0;
    return oni_istream_seek_frame(priv->stream, offset, origin);
}

void file_ll_cap_wait(tqcam_ll_dev_t *dev)
{
    file_ll_priv_t *priv = _priv(dev);
    if (!priv || (priv->sim_mode && priv->fps != 0))
        return;
    LOG_TRACE("[%s]signal evt_loop\n");
    file_ll_locked_t lock(&priv->wait_lock);
    priv->wait_flag = 1;
    pthread_cond_signal(&priv->wait_cond);
}

const tqcam_ll_ops_t file_ll_ops = {
    .init = _init,
    .uninit = _uninit,
    .set_debug = _set_debug,
    .dev_open = file_ll_dev_open,
    .dev_open_by_fd = _dev_open_by_fd,
    .dev_close = file_ll_dev_close,
    .dev_list = _dev_list,
    .exe_cmd = _exe_cmd,
    .tx_data = _tx_data,
    .cap_abort = _cap_abort,
    .cap_wait = file_ll_cap_wait,
    .cap_start = file_ll_cap_start,
    .cap_stop = file_ll_cap_stop,
    .cap_seek = file_ll_cap_seek,
    .dev_reset = _dev_reset,
    .reg_write = _reg_write,
    .reg_read = _reg_read,
    .param_set = file_ll_param_set,
    .param_get = file_ll_param_get,
};
