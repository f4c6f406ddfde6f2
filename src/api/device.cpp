// Device handles: whether one is open, the count of calls in flight, the listing.
//
// A process-wide gate stands before the handles' own words. Calls pass it for an instant as readers, when
// they test a handle and count themselves on it; a close takes it as writer when it shuts the handle and
// again when it takes the words away. So a call finds either an open handle that waits for it, or a closed
// one.
#include "api/device.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "drivers/driver.h"
#include "log/log.h"

namespace {
pthread_rwlock_t _gate = PTHREAD_RWLOCK_INITIALIZER;
thread_local ApiGuard *_innermost; // this thread's calls in flight, each pointing to the one around it

// Behind tqcam_dev_t::api_lock.
struct api_count_t {
    pthread_rwlock_t lock;
    uint32_t active; // under lock; the byte in the handle shows it, up to 255
};

api_count_t *_count(const tqcam_dev_t *dev)
{
    return static_cast<api_count_t *>(dev->api_lock);
}

// Who uses a row of the driver table: calls by their number, or one thread that binds or releases it. Calls
// nest, and so one may begin while a binding waits. Counts in place of a reader-writer lock, for calls come
// here with other locks held, in any order.
struct row_gate_t {
    pthread_mutex_t mutex; // for an instant
    pthread_cond_t idle;
    uint32_t users;
    bool binding;
};
row_gate_t _row_gates[16];                // by the row's place in the table
thread_local const tqcam_drv_t *_binding; // the row whose init or uninit this thread runs

row_gate_t *_row_gate(const tqcam_drv_t *row)
{
    return &_row_gates[reinterpret_cast<uintptr_t>(row) / sizeof(*row) % std::size(_row_gates)];
}

void _enter_row(const tqcam_drv_t *row)
{
    row_gate_t *g = _row_gate(row);
    MutexLock lock(&g->mutex);
    while (g->binding)
        pthread_cond_wait(&g->idle, &g->mutex);
    g->users++;
}

void _leave_row(const tqcam_drv_t *row)
{
    row_gate_t *g = _row_gate(row);
    MutexLock lock(&g->mutex);
    if (--g->users == 0)
        pthread_cond_broadcast(&g->idle);
}

class RowBinding {
  public:
    explicit RowBinding(const tqcam_drv_t *row) : gate_(_row_gate(row))
    {
        MutexLock lock(&gate_->mutex);
        while (gate_->binding || gate_->users > 0)
            pthread_cond_wait(&gate_->idle, &gate_->mutex);
        gate_->binding = true;
        _binding = row;
    }
    ~RowBinding()
    {
        MutexLock lock(&gate_->mutex);
        gate_->binding = false;
        _binding = nullptr;
        pthread_cond_broadcast(&gate_->idle);
    }
    RowBinding(const RowBinding &) = delete;
    RowBinding &operator=(const RowBinding &) = delete;

  private:
    row_gate_t *gate_;
};

void _count_add(tqcam_dev_t *dev, int n)
{
    api_count_t *count = _count(dev);
    if (!count)
        return;
    pthread_rwlock_wrlock(&count->lock);
    count->active += static_cast<uint32_t>(n);
    dev->api_active = static_cast<uint8_t>(count->active < 255 ? count->active : 255);
    pthread_rwlock_unlock(&count->lock);
}
} // namespace

DevPeek::DevPeek(const tqcam_dev_t *dev)
{
    pthread_rwlock_rdlock(&_gate);
    priv = dev ? dev->priv : nullptr;
}

DevPeek::~DevPeek()
{
    pthread_rwlock_unlock(&_gate);
}

DevGate::DevGate()
{
    pthread_rwlock_wrlock(&_gate);
}

DevGate::~DevGate()
{
    pthread_rwlock_unlock(&_gate);
}

bool dev_is_open(const tqcam_dev_t *dev, const char *caller)
{
    const bool open = [&] {
        DevPeek peek(dev);
        return peek.priv && peek.priv->opened;
    }();
    if (!open && caller)
        LOG_AS(6, "ERR", caller, "[%s] Device handler Is NULL!\r\n");
    return open;
}

ApiGuard::ApiGuard(tqcam_dev_t *dev, const char *caller)
{
    {
        DevPeek peek(dev);
        if (peek.priv && peek.priv->opened) {
            _count_add(dev, 1);
            dev_ = dev;
            outer_ = _innermost;
            _innermost = this;
        }
    }
    if (!dev_ && caller)
        LOG_AS(6, "ERR", caller, "[%s] Device handler Is NULL!\r\n");
}

ApiGuard::~ApiGuard()
{
    if (!dev_)
        return;
    _innermost = outer_;
    {
        DevPeek peek(dev_); // the count outlives this, not more
        _count_add(dev_, -1);
    }
    if (close_on_leave_)
        dev_dismantle(dev_);
}

ApiGuard *ApiGuard::outermost(const tqcam_dev_t *dev)
{
    ApiGuard *found = nullptr;
    for (ApiGuard *guard = _innermost; guard; guard = guard->outer_) {
        if (guard->dev_ == dev)
            found = guard;
    }
    return found;
}

void dev_count_create(tqcam_dev_t *dev)
{
    auto *count = new (std::nothrow) api_count_t();
    if (!count) {
        LOG_ERROR("[%s]malloc failed\n");
        std::exit(-3);
    }
    pthread_rwlock_init(&count->lock, nullptr);
    DevGate gate;
    dev->api_lock = count;
    dev->api_active = 0;
}

void dev_count_destroy(tqcam_dev_t *dev)
{
    api_count_t *count = _count(dev);
    if (!count)
        return;
    pthread_rwlock_destroy(&count->lock);
    delete count;
    dev->api_lock = nullptr;
}

uint32_t dev_count_active(tqcam_dev_t *dev)
{
    api_count_t *count = _count(dev);
    if (!count)
        return 0;
    pthread_rwlock_rdlock(&count->lock);
    const uint32_t active = count->active;
    pthread_rwlock_unlock(&count->lock);
    return active;
}

DrvUse::DrvUse(const tqcam_dev_priv_t *priv) : row_(priv->drv), drv_(nullptr)
{
    if (row_ && row_ != _binding)
        _enter_row(row_);
    if (row_ && row_->dev)
        drv_ = priv->drv;
}

DrvUse::~DrvUse()
{
    if (row_ && row_ != _binding)
        _leave_row(row_);
}

bool dev_drv_bind(tqcam_dev_t *dev)
{
    tqcam_drv_t *row = dev->priv->drv;
    RowBinding binding(row);
    if (row->ops->init(row, dev))
        return true;
    if (row->dev == dev) // whose handle goes
        row->dev = nullptr;
    return false;
}

void dev_drv_release(tqcam_dev_t *dev)
{
    tqcam_drv_t *row = dev->priv->drv;
    if (!row)
        return;
    RowBinding binding(row);
    if (row->dev != dev)
        return;
    row->ops->uninit(row);
    row->dev = nullptr; // a device that lost the row to this one must not run on what is freed
}

bool dev_show_frames(tqcam_dev_priv_t *priv, void *raw, uint32_t count, const tqcam_frame_info_t *info)
{
    const DrvUse drv(priv);
    if (!drv || !drv->ops->frame_raw_proc || info->frame_size == 0)
        return false;
    if (info->frame_size > priv->shown_max)
        priv->shown_max = info->frame_size;
    return drv->ops->frame_raw_proc(drv, raw, count, info) == DRV_FRAME_CONSUMED;
}

tqcam_frame_info_t dev_last_info(tqcam_dev_priv_t *priv)
{
    MutexLock lock(&priv->info_lock);
    return priv->last_info;
}

int tqcam_dev_list(tqcam_dev_t *list, int max)
{
    if (!list || max < 1) {
        LOG_ERROR("[%s]  wrong params: dev_list=%p, dev_list_num=%d \n", static_cast<void *>(list), max);
        return 0;
    }
    const size_t room = static_cast<size_t>(max);
    memset(list, 0, room * sizeof(*list));
    std::unique_ptr<tqcam_ll_dev_t[]> records(new (std::nothrow) tqcam_ll_dev_t[room]());
    if (!records)
        return 0;
    int found = tqcam_ll_dev_list(records.get(), max);
    found = found < max ? found : max;
    for (int i = 0; i < found; i++) {
        list[i].address = records[i].address;
        list[i].inited = records[i].inited;
    }
    return found;
}
