#include "drivers/tqtele.h"

#include <cstdlib>

#include "log/log.h"
#include "util/relaxed.h"

// Nothing in this library starts a session.
static relaxed_t<void *> _session;

bool tqtele_ready()
{
    return _session != nullptr;
}

void *tqtele_register(const tqtele_var_t *table, int count)
{
    if (!tqtele_ready())
        return nullptr;
    LOG_DEBUG("[%s]register %d params @ %p\n", count, static_cast<const void *>(table));
    return const_cast<tqtele_var_t *>(table);
}

void tqtele_unregister(void *handle)
{
    if (tqtele_ready())
        LOG_DEBUG("[%s]unregister params @ %p\n", handle);
}

void tqtele_sync(void *handle, bool local2tele)
{
    if (tqtele_ready())
        LOG_TRACE("[%s]sync params @ %p: local2tele=%d\n", handle, local2tele);
}

void tqtele_uninit()
{
    free(_session);
    _session = nullptr;
}
