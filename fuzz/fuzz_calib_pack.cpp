// Takes the input for a calibration pack from a device and unpacks it. The first byte says whether the header
// is put right first; whatever comes, nothing may be written outside the folder of the data, and no more than
// an archive may unpack to.
#include "api/device.h"
#include "calib/calib_pack.h"
#include "calib/zip_archive.h"
#include "fuzz_input.h"

namespace fs = std::filesystem;

void fuzz(fuzz_input in)
{
    const TempDir top;
    fs::create_directories("in/data");
    fs::current_path("in");
    require(tqcam_path_set("data/") == 0);
    const auto how = in.take<uint8_t>();
    std::vector<uint8_t> pack = in.take_bytes();
    const auto bytes = static_cast<uint32_t>(pack.size());
    if (how & 1 && bytes > CALIB_PACK_HEADER)
        calib_pack_hdr_write(pack.data(),
                             {1, static_cast<uint8_t>(how >> 1 & 1), 0, 1, bytes, bytes - CALIB_PACK_HEADER});
    std::ofstream("pack", std::ios::binary).write(reinterpret_cast<const char *>(pack.data()), bytes);
    tqcam_dev_priv_t priv{};
    priv.opened = 1;
    tqcam_dev_t dev{};
    dev.priv = &priv;
    _calib_pk_parse(&dev, "pack");

    uintmax_t unpacked = 0;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator("..")) {
        const std::string path = entry.path();
        const bool inside = path.starts_with("../in/data/");
        require(inside || path == "../in" || path == "../in/data" || path == "../in/pack" ||
                path == "../in/tmp.zip");
        require(!entry.is_symlink());
        unpacked += inside && entry.is_regular_file() ? entry.file_size() : 0;
    }
    require(unpacked <= tqzip::ZIP_UNPACK_MAX);
}
