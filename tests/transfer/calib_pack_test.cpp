// Calibration packs made and taken apart, and archives that mean harm.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <numeric>
#include <random>
#include <set>
#include <sys/stat.h>
#include <zip.h>

#include "api/device.h"
#include "calib/calib_pack.h"
#include "calib/zip_archive.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

void write_file(const std::string &name, const std::string &content)
{
    std::ofstream(name, std::ios::binary) << content;
}

struct CalibPack : ::testing::Test {
    TempDir dir;
    tqcam_dev_priv_t priv = {};
    tqcam_dev_t dev = {};
    char own[256] = ""; // the device's calibration file

    void SetUp() override
    {
        ASSERT_EQ(tqcam_path_set("data/"), 0);
        priv.opened = 1;
        dev.priv = &priv;
        ASSERT_TRUE(tq_priv_get_param_absolute_name(&dev, own, sizeof own));
    }
};

TEST_F(CalibPack, ComesBackAsItWentIn)
{
    // 153582 bytes and the header fill the first slice exactly.
    for (const size_t bytes : {size_t{1}, size_t{153582}, size_t{153583}})
        for (const bool compress : {false, true}) {
            SCOPED_TRACE(::testing::Message() << bytes << (compress ? " zipped" : ""));
            std::string file(bytes, '\0');
            std::generate(file.begin(), file.end(), std::minstd_rand()); // doesn't shrink
            write_file(own, file);
            ASSERT_TRUE(_tqcam_param_encode_construct(own, "pack", 0x00010002, compress));
            std::string pack = read_text("pack");
            const auto head = reinterpret_cast<uint8_t *>(pack.data());
            calib_pack_hdr_t hdr = calib_pack_hdr_read(head);
            EXPECT_EQ(hdr.fsize, pack.size());
            EXPECT_EQ(pack.size(), (18 + hdr.dsize + 153599) / 153600 * 153600);
            EXPECT_TRUE(18 + hdr.dsize == pack.size() || pack.back() == 1) << "filled up with 1";
            // Random bytes are no calibration and have no time stamp, without which a pack is refused.
            fs::remove(own);
            _calib_pk_parse(&dev, "pack");
            EXPECT_FALSE(fs::exists(own));
            hdr.ts = 1;
            calib_pack_hdr_write(head, hdr);
            write_file("pack", pack);
            _calib_pk_parse(&dev, "pack");
            EXPECT_EQ(read_text(own), file);
            EXPECT_FALSE(fs::exists("pack") || fs::exists("tmp.zip"));
        }
}

struct Entry {
    std::string name, content;
    uint32_t unix_mode = S_IFREG | 0644;
};

TEST_F(CalibPack, SizesThatDisagree)
{
    static const struct {
        const char *what;
        calib_pack_hdr_t hdr;
        size_t length;
        bool taken;
    } cases[] = {
        {"as it should be", {1, 0, 0, 1, 118, 100}, 118, true},
        {"padded", {1, 0, 0, 1, 150, 100}, 150, true},
        {"file cut", {1, 0, 0, 1, 118, 100}, 117, false},
        {"payload beyond the end", {1, 0, 0, 1, 118, 101}, 118, false},
        {"payload that wraps", {1, 0, 0, 1, 118, 0xFFFFFFF0}, 118, false},
        {"header cut", {1, 0, 0, 1, 17, 1}, 17, false},
        {"no zip", {1, 1, 0, 1, 118, 100}, 118, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::string pack(std::max<size_t>(c.length, 18), 'x');
        calib_pack_hdr_write(reinterpret_cast<uint8_t *>(pack.data()), c.hdr);
        write_file("pack", pack.substr(0, c.length));
        fs::remove(own);
        _calib_pk_parse(&dev, "pack");
        EXPECT_EQ(fs::exists(own), c.taken);
        EXPECT_EQ(fs::exists("pack"), !c.taken) << "a refused pack stays for people to look at";
    }
}

TEST(ZipArchive, RefusesWhatMeansHarm)
{
    static const std::string big(40 << 20, '\0');
    static const struct {
        const char *what;
        std::vector<Entry> entries;
        const char *left; // files afterwards; nullptr: refused, with nothing written
    } cases[] = {
        {"as they should be",
         {{"a", "1"}, {"b\\c/d", "2"}, {"e/", ""}, {"b/./f", "3"}, {"..a/...", "4"}},
         "./data/..a/... ./data/a ./data/b/c/d ./data/b/f "},
        {"absolute", {{"good", ""}, {"/tmp/tqcam-evil", "x"}}, nullptr},
        {"climbing", {{"good", ""}, {"a/../../evil", "x"}}, nullptr},
        {"climbing, other slash", {{"a\\..\\..\\evil", "x"}}, nullptr},
        {"ends in a climb", {{"a/..", "x"}}, nullptr},
        {"link", {{"good", ""}, {"l", "/etc", S_IFLNK | 0777}}, nullptr},
        {"through a link that lies there", {{"sub/x", "x"}}, nullptr},
        {"together beyond 64 MiB", {{"half", big}, {"other", big}}, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        fs::create_directory("data");
        fs::create_directory("outside");
        fs::create_symlink("../outside", "data/sub");
        zip_t *zip = zip_open("a.zip", ZIP_CREATE, nullptr);
        for (const Entry &e : c.entries) {
            zip_source_t *source = zip_source_buffer(zip, e.content.data(), e.content.size(), 0);
            const auto i = static_cast<zip_uint64_t>(zip_file_add(zip, e.name.c_str(), source, 0));
            zip_file_set_external_attributes(zip, i, 0, ZIP_OPSYS_UNIX, e.unix_mode << 16);
        }
        ASSERT_EQ(zip_close(zip), 0);
        EXPECT_EQ(tqzip::zip_extract("a.zip", "data/", nullptr, nullptr), c.left ? 0 : -1);
        std::set<std::string> names;
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator("."))
            if (entry.is_regular_file() && entry.path() != "./a.zip")
                names.insert(entry.path().string() + " ");
        EXPECT_EQ(std::accumulate(names.begin(), names.end(), std::string()), c.left ? c.left : "");
    }
}

} // namespace
