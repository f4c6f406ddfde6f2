#include "calib/zip_archive.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

namespace tqzip {

constexpr size_t ZIP_PATH_MAX = 32767;

struct zip_t {
    ::zip_t *archive;
    int level;
    std::string entry; // name of the entry that is open; empty when none
    uint8_t *data;     // its bytes so far
    size_t len, room;
};

zip_t *zip_open(const char *name, int level, char mode)
{
    if (level < 0)
        level = 6;
    if (!name || !*name || (level & 15) > 10 || (mode != 'w' && mode != 'r' && mode != 'a'))
        return nullptr;
    const int flags = mode == 'w' ? ZIP_CREATE | ZIP_TRUNCATE : mode == 'r' ? ZIP_RDONLY : 0;
    int error = 0;
    ::zip_t *archive = ::zip_open(name, flags, &error);
    if (!archive)
        return nullptr;
    auto *zip = new (std::nothrow) zip_t{archive, level, {}, nullptr, 0, 0};
    if (!zip)
        zip_discard(archive);
    return zip;
}

static void _drop_entry(zip_t *zip)
{
    std::free(zip->data);
    zip->data = nullptr;
    zip->len = zip->room = 0;
    zip->entry.clear();
}

int zip_entry_open(zip_t *zip, const char *name)
{
    if (!zip || !name || !*name || !zip->entry.empty() || std::strlen(name) > ZIP_PATH_MAX)
        return -1;
    zip->entry = name;
    for (char &c : zip->entry)
        if (c == '\\')
            c = '/';
    return 0;
}

int zip_entry_write(zip_t *zip, const void *data, size_t len)
{
    if (!zip || zip->entry.empty() || (!data && len > 0))
        return -1;
    if (len > zip->room - zip->len) {
        const size_t room = (zip->len + len) * 2;
        auto *grown = static_cast<uint8_t *>(std::realloc(zip->data, room));
        if (!grown)
            return -1;
        zip->data = grown;
        zip->room = room;
    }
    if (len > 0)
        std::memcpy(zip->data + zip->len, data, len);
    zip->len += len;
    return 0;
}

int zip_entry_close(zip_t *zip)
{
    if (!zip || zip->entry.empty())
        return -1;
    // The archive takes the bytes over: it reads and frees them when it is closed.
    zip_source_t *source = zip_source_buffer(zip->archive, zip->data, zip->len, 1);
    if (!source) {
        _drop_entry(zip);
        return -1;
    }
    zip->data = nullptr;
    const zip_int64_t index =
        zip_file_add(zip->archive, zip->entry.c_str(), source, ZIP_FL_OVERWRITE | ZIP_FL_ENC_UTF_8);
    if (index < 0)
        zip_source_free(source);
    const bool ok =
        index >= 0 &&
        zip_set_file_compression(zip->archive, static_cast<zip_uint64_t>(index),
                                 zip->level == 0 ? ZIP_CM_STORE : ZIP_CM_DEFLATE,
                                 static_cast<zip_uint32_t>(zip->level & 15) > 9 ? 9 : zip->level & 15) == 0 &&
        zip_file_set_mtime(zip->archive, static_cast<zip_uint64_t>(index), std::time(nullptr), 0) == 0;
    _drop_entry(zip);
    return ok ? 0 : -1;
}

int zip_close(zip_t *zip)
{
    if (!zip)
        return 0;
    _drop_entry(zip);
    const int r = ::zip_close(zip->archive);
    if (r != 0)
        zip_discard(zip->archive);
    delete zip;
    return r == 0 ? 0 : -1;
}

// Relative, without a component that climbs, and of a length that a path may have.
static bool _name_is_safe(const char *name)
{
    const size_t len = std::strlen(name);
    if (len == 0 || len > ZIP_PATH_MAX || name[0] == '/' || name[0] == '\\')
        return false;
    for (const char *part = name; part;) {
        const char *end = std::strpbrk(part, "/\\");
        if (end ? end - part == 2 && std::memcmp(part, "..", 2) == 0 : std::strcmp(part, "..") == 0)
            return false;
        part = end ? end + 1 : nullptr;
    }
    return true;
}

static bool _is_link(::zip_t *archive, zip_uint64_t index)
{
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    return zip_file_get_external_attributes(archive, index, 0, &system, &attributes) == 0 &&
           system == ZIP_OPSYS_UNIX && S_ISLNK(attributes >> 16);
}

static bool _all_entries_safe(::zip_t *archive, zip_int64_t count)
{
    uint64_t total = 0;
    for (zip_int64_t i = 0; i < count; i++) {
        zip_stat_t stat;
        if (zip_stat_index(archive, static_cast<zip_uint64_t>(i), 0, &stat) != 0 ||
            !(stat.valid & ZIP_STAT_NAME) || !(stat.valid & ZIP_STAT_SIZE))
            return false;
        if (!_name_is_safe(stat.name) || _is_link(archive, static_cast<zip_uint64_t>(i)) ||
            stat.size > ZIP_UNPACK_MAX)
            return false;
        total += stat.size;
        if (total > ZIP_UNPACK_MAX)
            return false;
    }
    return true;
}

// Opens the file at path, below the open folder base, and makes the folders on the way. No step follows a
// link, so a link that lies there already leads nowhere.
static int _create_below(int base, const std::string &path)
{
    int folder = dup(base);
    size_t at = 0;
    for (size_t slash; folder >= 0 && (slash = path.find('/', at)) != std::string::npos; at = slash + 1) {
        const std::string part = path.substr(at, slash - at);
        if (part.empty() || part == ".")
            continue;
        if (mkdirat(folder, part.c_str(), 0755) != 0 && errno != EEXIST) {
            close(folder);
            return -1;
        }
        const int next = openat(folder, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        close(folder);
        folder = next;
    }
    if (folder < 0)
        return -1;
    const int fd =
        openat(folder, path.c_str() + at, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    close(folder);
    return fd;
}

static bool _make_folder_below(int base, const std::string &path)
{
    const int fd = _create_below(base, path + ".");
    if (fd >= 0)
        close(fd);
    return fd >= 0 || errno == EISDIR;
}

// The size in the directory of an archive is a claim: what comes out is counted.
static bool _unpack(::zip_t *archive, zip_uint64_t index, int fd, uint64_t &room)
{
    zip_file_t *file = zip_fopen_index(archive, index, 0);
    if (!file)
        return false;
    uint8_t block[16384];
    zip_int64_t got;
    bool ok = true;
    while (ok && (got = zip_fread(file, block, sizeof block)) > 0) {
        ok = static_cast<uint64_t>(got) <= room && write(fd, block, static_cast<size_t>(got)) == got;
        room -= ok ? static_cast<uint64_t>(got) : 0;
    }
    ok = ok && got == 0;
    return zip_fclose(file) == 0 && ok;
}

int zip_extract(const char *name, const char *dir, zip_on_entry_t on_entry, void *arg)
{
    if (!name || !dir)
        return -1;
    int error = 0;
    ::zip_t *archive = ::zip_open(name, ZIP_RDONLY | ZIP_CHECKCONS, &error);
    if (!archive)
        return -1;
    // dir stands in front of the names as it is: what is behind its last separator begins the file's name.
    const std::string prefix = dir;
    const size_t slash = prefix.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : prefix.substr(0, slash + 1);
    const std::string stem = slash == std::string::npos ? prefix : prefix.substr(slash + 1);
    const int base = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    bool ok = base >= 0 && count >= 0 && _all_entries_safe(archive, count);
    uint64_t room = ZIP_UNPACK_MAX;
    for (zip_int64_t i = 0; ok && i < count; i++) {
        std::string entry = zip_get_name(archive, static_cast<zip_uint64_t>(i), 0);
        for (char &c : entry)
            if (c == '\\')
                c = '/';
        const std::string path = prefix + entry;
        if (path.size() > ZIP_PATH_MAX) {
            ok = false;
        } else if (entry.back() == '/') {
            ok = _make_folder_below(base, stem + entry);
        } else {
            const int fd = _create_below(base, stem + entry);
            ok = fd >= 0 && _unpack(archive, static_cast<zip_uint64_t>(i), fd, room);
            if (fd >= 0)
                ok = close(fd) == 0 && ok;
            ok = ok && (!on_entry || on_entry(path.c_str(), arg) >= 0);
        }
    }
    if (base >= 0)
        close(base);
    zip_discard(archive);
    return ok ? 0 : -1;
}

} // namespace tqzip
