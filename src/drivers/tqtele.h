// Exposes a driver's tuning variables by name to a remote session. No such session exists in this library, so
// that everything here does nothing until a build brings one: variables keep their defaults, and drivers may
// call these functions without asking.
#pragma once

#include <cstdint>

enum { TQTELE_U8 = 5, TQTELE_U16 = 6, TQTELE_U32 = 7, TQTELE_F32 = 9 };

struct tqtele_var_t {
    const char *name;
    int type; // TQTELE_...
    void *addr;
};

// Registers a table, which must stay where it is until tqtele_unregister. Returns a handle for the other two,
// nullptr without a session.
void *tqtele_register(const tqtele_var_t *table, int count);
void tqtele_unregister(void *handle);

// Takes values over: from the variables to the session with local2tele, the other way without.
void tqtele_sync(void *handle, bool local2tele);

bool tqtele_ready(); // there is a session
void tqtele_uninit();
