// A thin layer over libzip for calibration packs. It lives in a namespace of its own: libzip has a zip_open
// too.
//
// An archive from a device is untrusted. Extraction looks at all entries before it writes anything, and
// refuses the archive when one is absolute, climbs out of the folder, is a link, or when all together unpack
// to more than 64 MiB; nothing outside the folder is written.
#pragma once

#include <cstddef>

namespace tqzip {

struct zip_t;

constexpr size_t ZIP_UNPACK_MAX = size_t{64} << 20;

// mode 'w' creates a file archive, 'r' and 'a' open one. A level below 0 means 6, level 0 stores, others
// deflate; a level whose low four bits exceed 10 is refused. NULL on failure.
zip_t *zip_open(const char *name, int level, char mode);

// One entry at a time: begin (backslashes in the name become slashes), add data, finish with the local time
// as its date. 0 or a negative value.
int zip_entry_open(zip_t *zip, const char *name);
int zip_entry_write(zip_t *zip, const void *data, size_t len);
int zip_entry_close(zip_t *zip);

// Writes the archive and closes it; 0 or a negative value. NULL is fine.
int zip_close(zip_t *zip);

// Called with the path of each file extracted; a negative return ends the extraction with failure.
using zip_on_entry_t = int (*)(const char *path, void *arg);

// Extracts every entry to the path that dir and its name make, one behind the other as they stand, and makes
// missing folders with mode 0755. 0 or a negative value.
int zip_extract(const char *name, const char *dir, zip_on_entry_t on_entry, void *arg);

} // namespace tqzip
