// Bringing a device to life and taking it down. Open: private state, link, identity, driver, stream, in this
// order; what failed half way is undone in the opposite one. A missing calibration is no failure.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>

#include "api/device.h"
#include "api/params.h"
#include "api/recording.h"
#include "drivers/driver.h"
#include "log/log.h"

int dev_close_polls = 200;

namespace {
constexpr int URI_ROOM = 256;
constexpr size_t CALIB_FREQS_BYTES = 150;
constexpr uint32_t CALIB_FREQS_ROOM = CALIB_FREQS_BYTES / sizeof(uint32_t);
constexpr uint32_t CACHE_FRAMES = 10;
constexpr int RESET_USB = 3, RESET_MAX = 8;
constexpr int USB_SPEED_FULL = 2; // libusb's code; up to here the camera can't stream
constexpr int CLOSE_POLL_US = 100000;

tqcam_dev_t _default_dev; // of tqcam_dev_open(NULL); its storage outlives the close

[[noreturn]] void _out_of_memory(const char *caller)
{
    LOG_AS(6, "ERR", caller, "[%s]malloc failed\n");
    std::exit(-3);
}

void *_zeroed(size_t size, const char *caller)
{
    void *mem = calloc(1, size);
    if (!mem)
        _out_of_memory(caller);
    return mem;
}

void _mutex_create(pthread_mutex_t *mutex, int type, const char *caller)
{
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0 || pthread_mutexattr_settype(&attr, type) != 0 ||
        pthread_mutex_init(mutex, &attr) != 0) {
        LOG_AS(6, "ERR", caller, "[%s]pthread_mutex_init failed\n");
        std::exit(-1);
    }
    pthread_mutexattr_destroy(&attr);
}

void _create_locks(tqcam_dev_priv_t *priv, const char *caller)
{
    if (pthread_cond_init(&priv->rdy_cond, nullptr) != 0) {
        LOG_AS(6, "ERR", caller, "[%s]pthread_cond_init failed\n");
        std::exit(-1);
    }
    _mutex_create(&priv->rdy_lock, PTHREAD_MUTEX_DEFAULT, caller);
    _mutex_create(&priv->save_lock, PTHREAD_MUTEX_DEFAULT, caller);
    _mutex_create(&priv->feed_lock, PTHREAD_MUTEX_DEFAULT, caller);
    _mutex_create(&priv->info_lock, PTHREAD_MUTEX_DEFAULT, caller);
    _mutex_create(&priv->cap_lock, PTHREAD_MUTEX_RECURSIVE, caller);
}

void _destroy_locks(tqcam_dev_priv_t *priv)
{
    pthread_cond_destroy(&priv->rdy_cond);
    pthread_mutex_destroy(&priv->rdy_lock);
    pthread_mutex_destroy(&priv->save_lock);
    pthread_mutex_destroy(&priv->feed_lock);
    pthread_mutex_destroy(&priv->info_lock);
    pthread_mutex_destroy(&priv->cap_lock);
}

void _free_path(tqcam_dev_t *dev)
{
    if (dev->address.if_type != TQCAM_IF_FILE)
        return;
    free(dev->address.file.path);
    dev->address.file.path = nullptr;
}

// The private state and the words that lead to it; the last step of a close and of a failed open.
void _free_priv(tqcam_dev_t *dev)
{
    tqcam_dev_priv_t *priv;
    {
        DevGate gate;
        priv = dev->priv;
        dev->priv = nullptr;
        dev_count_destroy(dev);
    }
    if (priv) {
        free(priv->info.uri);
        free(priv->info.calib_freqs);
        tq_calib_len_uninit_map(&priv->lens_map);
        _destroy_locks(priv);
    }
    delete priv;
    _free_path(dev);
    if (dev->owned)
        free(dev);
}

// Lets no call begin any more and waits for those in flight; false when some don't end.
bool _shut(tqcam_dev_t *dev)
{
    {
        DevGate gate;
        dev->priv->opened = 0;
    }
    { // a retrieval that a start on another thread has let wait again
        MutexLock lock(&dev->priv->rdy_lock);
        dev->priv->cap_stop = 1;
        pthread_cond_broadcast(&dev->priv->rdy_cond);
    }
    for (int polls = 0; dev_count_active(dev) != 0; polls++) {
        if (polls == dev_close_polls)
            return false;
        usleep(CLOSE_POLL_US);
    }
    return true;
}

// The end of an open that failed; the handle goes too, if it is the library's.
tqcam_dev_t *_unwind(tqcam_dev_t *dev, bool close_link)
{
    _shut(dev);
    if (close_link)
        tqcam_ll_dev_close(&dev->priv->ll);
    _free_priv(dev);
    return nullptr;
}

// A text of up to 18 bytes without NUL, into a field of 32.
void _copy_text(char (&dst)[32], const tqcam_param_item_t &item)
{
    const size_t len = item.param_len < sizeof(item.value) ? item.param_len : sizeof(item.value);
    memset(dst, 0, sizeof(dst));
    memcpy(dst, item.value, strnlen(reinterpret_cast<const char *>(item.value), len));
}

// Who the device is and what it can do, from the seven parameters that it is asked for at open.
bool _read_identity(tqcam_dev_t *dev, const char *caller)
{
    enum { VENDOR, PRODUCT, SERIAL, VERSION, CHIP, LIMITS, CALIB, COUNT };
    tqcam_param_item_t items[COUNT] = {};
    static constexpr uint32_t ids[COUNT] = {TQCAM_PARAM_VENDOR,    TQCAM_PARAM_PRODUCT, TQCAM_PARAM_SERIAL,
                                            TQCAM_PARAM_VERSION,   TQCAM_PARAM_CHIP_ID, TQCAM_PARAM_LIMITS,
                                            TQCAM_PARAM_CALIB_INFO};
    for (int i = 0; i < COUNT; i++) {
        items[i].param_id = ids[i];
        items[i].param_len = sizeof(items[i].value);
    }
    if (!_tqcam_param_batch_get(dev, items, COUNT)) {
        LOG_AS(5, "WRN", caller, "[%s] cannot get info of device\n");
        return false;
    }

    tqcam_dev_priv_t *priv = dev->priv;
    tqcam_dev_info_t &info = priv->info;
    _copy_text(dev->vendor, items[VENDOR]);
    _copy_text(dev->product, items[PRODUCT]);
    for (unsigned i = 0; i < 3; i++)
        info.serial_words[i] = param_u32(items[SERIAL], 4 * i);
    memset(dev->serial, 0, sizeof(dev->serial));
    snprintf(dev->serial, sizeof(dev->serial), "%08X%08X%08X", info.serial_words[0], info.serial_words[1],
             info.serial_words[2]);
    info.vendor = dev->vendor;
    info.product = dev->product;
    info.serial = dev->serial;
    dev->version = tqcam_version_t();
    const size_t ver_len =
        items[VERSION].param_len < sizeof(dev->version) ? items[VERSION].param_len : sizeof(dev->version);
    memcpy(&dev->version, items[VERSION].value, ver_len);
    memcpy(&info.version, items[VERSION].value, ver_len);

    // The low half of the identity is a signed 32-bit value: with its top bit set it fills the high half.
    const uint16_t p = param_u16(items[CHIP], 0), cid = param_u16(items[CHIP], 2),
                   w = param_u16(items[CHIP], 4);
    const uint32_t low = static_cast<uint32_t>(p) << 24 | static_cast<uint32_t>(w) << 16 | cid;
    const uint32_t high = info.serial_words[0] ^ info.serial_words[1] ^ info.serial_words[2];
    dev->dev_id = static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(low))) |
                  static_cast<uint64_t>(high) << 32;
    info.dev_id = dev->dev_id;
    priv->dev_id32 = info.serial_words[0] ^ param_u32(items[CHIP], 2);
    info.dev_id32 = priv->dev_id32;
    LOG_AS(1, "DBG", "_tqcam_get_info", "[%s]SENSOR: p/w/cid=%d/%d/%d. HWID=0x%016lX\n", p, w, cid,
           static_cast<unsigned long>(dev->dev_id));

    info.max_w = priv->max_w = param_u16(items[LIMITS], 0);
    info.max_h = priv->max_h = param_u16(items[LIMITS], 2);
    priv->cur_w = info.max_w;
    priv->cur_h = info.max_h;
    info.max_fps = param_u16(items[LIMITS], 6);
    info.max_intg_us = param_u16(items[LIMITS], 8);
    info.calib_compressed = items[CALIB].value[1];
    info.calib_ts = param_u32(items[CALIB], 6);
    info.calib_fsize = param_u32(items[CALIB], 10);
    info.calib_dsize = param_u32(items[CALIB], 14);
    info.path_prefix = dev->path_prefix;
    return true;
}

// The link, once more for a camera that came up too slow: a reset brings it back on the bus, with another
// address. The reset's own answer says nothing; whether the link stands again does. There is no limit of
// rounds. On failure tells whether the link is to be closed.
bool _open_link(tqcam_dev_t *dev, bool *close_link, const char *caller)
{
    tqcam_dev_priv_t *priv = dev->priv;
    for (;;) {
        *close_link = false;
        LOG_AS(2, "DBG", caller, "[%s]-- open tqcam device @ %p\n", static_cast<void *>(dev));
        if (!tqcam_ll_dev_open(&priv->ll)) {
            LOG_AS(6, "ERR", caller, "[%s]open device failed!\n");
            return false;
        }
        *close_link = true;
        if (priv->ll.address.if_type != TQCAM_IF_USB || priv->ll.address.usb.speed > USB_SPEED_FULL)
            return true;
        priv->opened = 1; // the reset asks
        LOG_AS(5, "WRN", caller, "[%s]USB in low speed mode, reset usb\n");
        if (!tqcam_dev_reset(dev, RESET_USB) && !priv->ll.priv)
            return false;
        tqcam_ll_dev_close(&priv->ll);
    }
}

// What the driver knows about the device, after its init.
void _start_driver(tqcam_dev_t *dev, const char *caller)
{
    tqcam_dev_priv_t *priv = dev->priv;
    const DrvUse drv(priv);
    tqcam_dev_info_t &info = priv->info;
    priv->dev_mode = 0;
    if (!drv) // another device of the chip took the row over and closed
        return;
    if (drv->ops->drv_calib_load && drv->ops->drv_calib_load(drv, 0, 0, 2) < 0)
        LOG_AS(6, "ERR", caller, "[%s]Load calibration data failed\n");
    tqcam_dev_get_uri(dev, info.uri, URI_ROOM);
    uint32_t count = CALIB_FREQS_ROOM;
    if (drv->ops->calib_freq_get && drv->ops->calib_freq_get(drv, info.calib_freqs, &count) >= 0)
        info.calib_freq_cnt = count < CALIB_FREQS_ROOM ? count : CALIB_FREQS_ROOM;
    tqcam_lens_info_t lens;
    if (tqcam_lens_param_get(dev, &lens))
        info.lens_param = lens;
    memcpy(info.drv_name, drv->desc, strnlen(drv->desc, sizeof(info.drv_name) - 1));
}
} // namespace

// A handle that is open still is closed first, and then keeps what the close would take: its path, and
// itself.
static void _close_for_reopen(tqcam_dev_t *dev)
{
    const uint8_t owned = dev->owned;
    const tqcam_ll_addr_t address = dev->address;
    dev->owned = 0;
    if (address.if_type == TQCAM_IF_FILE)
        dev->address.file.path = nullptr;
    tqcam_dev_close(dev);
    dev->address = address;
    dev->owned = owned;
}

tqcam_dev_t *tqcam_dev_open(tqcam_dev_t *dev)
{
    if (!dev) {
        dev = &_default_dev;
        if (dev->priv) {
            LOG_ERROR("[%s]default device may not close properly!\n");
            return nullptr;
        }
        *dev = tqcam_dev_t();
        dev->address.if_type = TQCAM_IF_ANY;
    }
    if (dev->priv && dev->priv->closing) {
        LOG_ERROR("[%s]device is being closed\n");
        return nullptr;
    }
    if (dev->priv && dev->priv->opened) {
        LOG_WARN("[%s]device not close correctly. close it..\n");
        _close_for_reopen(dev);
        if (dev->priv) // called from a callback of this device: the close is still to come
            return nullptr;
    }
    if (!dev->priv) {
        auto *fresh = new (std::nothrow) tqcam_dev_priv_t();
        if (!fresh) {
            _free_priv(dev);
            return nullptr;
        }
        fresh->ll.address = dev->address;
        fresh->ll.inited = dev->inited != 0;
        DevGate gate;
        dev->priv = fresh;
    }
    tqcam_dev_priv_t *priv = dev->priv;
    if (!priv->info.uri)
        priv->info.uri = static_cast<char *>(_zeroed(URI_ROOM, __func__));
    if (!priv->info.calib_freqs)
        priv->info.calib_freqs = static_cast<uint32_t *>(_zeroed(CALIB_FREQS_BYTES, __func__));
    priv->ll.dev = dev;
    priv->lens_cfg.en_2d = 1;
    priv->lens_cfg.en_3d = 1;
    _create_locks(priv, __func__);
    dev_count_create(dev);

    bool close_link = false;
    if (!_open_link(dev, &close_link, __func__))
        return _unwind(dev, close_link);
    dev->address = priv->ll.address;
    dev->inited = priv->ll.inited;
    dev->path_prefix = tqcam_path_get();
    priv->opened = 1;

    if (!_read_identity(dev, __func__))
        return _unwind(dev, true);
    priv->drv = tqcam_drv_find(&priv->ll);
    if (!priv->drv) {
        LOG_ERROR("[%s]cannot find driver for device: product=%s\n", dev->product);
        return _unwind(dev, true);
    }

    priv->cap_cfg.cache_frames_cnt = CACHE_FRAMES;
    const tq_stream_cfg_t stream_cfg = {.rdy_limit = CACHE_FRAMES};
    priv->stream = tq_stream_create(&stream_cfg);
    if (!priv->stream) {
        LOG_ERROR("[%s]tq_stream_create failed\n");
        std::exit(-1);
    }
    priv->cap_state = CAP_STATE_AFTER_OPEN;
    priv->cap_stop = 1;

    if (!dev_drv_bind(dev)) {
        LOG_ERROR("[%s]Driver init failed\n");
        _shut(dev);
        tq_stream_destroy(priv->stream);
        return _unwind(dev, true);
    }
    _start_driver(dev, __func__);
    LOG_DEBUG2("[%s]-- open tqcam device OK\n");
    return dev;
}

tqcam_dev_t *tqcam_dev_open_by_fd(int)
{
    LOG_ERROR("[%s]tqcam_dev_open_by_fd currently only support in android!\n");
    return nullptr;
}

void dev_dismantle(tqcam_dev_t *dev)
{
    tqcam_dev_priv_t *priv = dev->priv;
    tqcam_ll_dev_close(&priv->ll); // ends the event thread
    dev_drv_release(dev);
    tq_stream_destroy(priv->stream);
    rec_close(dev);
    free(priv->cap_cfg.save_file);
    _free_priv(dev);
}

void tqcam_dev_close(tqcam_dev_t *dev)
{
    LOG_DEBUG2("[%s]close tqcam device @ %p\n", static_cast<void *>(dev));
    if (!dev)
        return;
    {
        DevGate gate;
        if (!dev->priv || dev->priv->closing || !dev->priv->opened)
            return;
        dev->priv->closing = 1;
    }
    tqcam_dev_priv_t *priv = dev->priv;
    if (priv->cap_state != CAP_STATE_IDLE && !tqcam_cap_stop(dev))
        LOG_ERROR("[%s]stop capture failed!\n");
    if (!_shut(dev)) {
        LOG_WARN("[%s] api wait timeout\n");
        // Called from a callback, this waited for the very call that it runs in, which goes on to use the
        // device when the callback returns: that call closes it.
        if (ApiGuard *own = ApiGuard::outermost(dev)) {
            own->close_on_leave();
            return;
        }
    }
    dev_dismantle(dev);
}

tqcam_dev_info_t *tqcam_dev_get_info(tqcam_dev_t *dev, tqcam_dev_info_t *info)
{
    ApiGuard guard(dev, __func__);
    if (!guard || !info)
        return nullptr;
    *info = dev->priv->info;
    return info;
}

bool tqcam_dev_reset(tqcam_dev_t *dev, int target)
{
    ApiGuard guard(dev, __func__);
    if (!guard)
        return false;
    LOG_DEBUG("[%s]rest device (target=%d)\n", target);
    if (target < 0 || target > RESET_MAX) {
        LOG_ERROR("[%s]wrong reset target: %d\n", target);
        return false;
    }
    return tqcam_ll_dev_reset(&dev->priv->ll, target);
}
