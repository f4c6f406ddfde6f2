// Takes the input for a calibration pack from a device and unpacks it. The first byte says whether the header
// is put right first; whatever comes, nothing may be written outside the folder of the data, and no more than
// an archive may unpack to.
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "api/device.h"
#include "calib/calib_pack.h"
#include "calib/zip_archive.h"
#include "tq_log.h"

namespace fs = std::filesystem;

static const fs::path &work_folder()
{
    static const fs::path folder = [] {
        char name[] = "/tmp/fuzz-pack-XXXXXX";
        if (!mkdtemp(name))
            std::abort();
        fs::create_directories(fs::path(name) / "in/data");
        std::atexit([] {
            std::error_code ignored;
            fs::remove_all(work_folder(), ignored);
        });
        return fs::path(name);
    }();
    return folder;
}

static void check_and_clean(const fs::path &top)
{
    for (const fs::directory_entry &entry : fs::directory_iterator(top))
        if (entry.path().filename() != "in")
            std::abort();
    for (const fs::directory_entry &entry : fs::directory_iterator("."))
        if (entry.path() != "./data" && entry.path() != "./pack" && entry.path() != "./tmp.zip")
            std::abort();
    uintmax_t bytes = 0;
    bool any = false;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator("data")) {
        any = true;
        if (entry.is_symlink())
            std::abort();
        if (entry.is_regular_file())
            bytes += entry.file_size();
    }
    if (bytes > tqzip::ZIP_UNPACK_MAX)
        std::abort();
    if (any) {
        fs::remove_all("data");
        fs::create_directory("data");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const fs::path &top = work_folder(), home = fs::current_path();
    fs::current_path(top / "in");
    static const bool prepared = [] {
        tq_log_init(nullptr, "/dev/null", "FUZZ");
        tq_log_cfg(nullptr, TQ_LOG_CONSOLE, TQ_LOG_SILENT, 0);
        return tqcam_path_set("data/") == 0;
    }();
    if (!prepared)
        std::abort();
    const uint8_t how = size > 0 ? data[0] : 0;
    std::vector<uint8_t> pack(data + (size > 0), data + size);
    if (how & 1 && pack.size() > CALIB_PACK_HEADER) {
        const calib_pack_hdr_t hdr = {
            1, static_cast<uint8_t>(how >> 1 & 1), 0,
            1, static_cast<uint32_t>(pack.size()), static_cast<uint32_t>(pack.size() - CALIB_PACK_HEADER)};
        calib_pack_hdr_write(pack.data(), hdr);
    }
    std::ofstream("pack", std::ios::binary)
        .write(reinterpret_cast<const char *>(pack.data()), static_cast<std::streamsize>(pack.size()));
    tqcam_dev_priv_t priv{};
    priv.opened = 1;
    tqcam_dev_t dev{};
    dev.priv = &priv;
    _calib_pk_parse(&dev, "pack");
    check_and_clean(top);
    fs::current_path(home);
    return 0;
}
