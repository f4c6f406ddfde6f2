// Calibration packs made and taken apart, and archives that mean harm.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zip.h>

#include "api/device.h"
#include "calib/calib_pack.h"
#include "calib/zip_archive.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

std::string content_of(const std::string &name)
{
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string &name, const std::string &content)
{
    std::ofstream(name, std::ios::binary) << content;
}

struct CalibPack : ::testing::Test {
    TempDir dir;
    LogCapture log;
    tqcam_dev_priv_t priv = {};
    tqcam_dev_t dev = {};
    std::string own; // the device's calibration file

    void SetUp() override
    {
        ASSERT_EQ(tqcam_path_set("data/"), 0);
        priv.opened = 1;
        priv.dev_id32 = 77;
        dev.priv = &priv;
        char name[256] = "";
        ASSERT_TRUE(tq_priv_get_param_absolute_name(&dev, name, sizeof name));
        own = name;
    }
    void TearDown() override
    {
        dev.priv = nullptr;
        tqcam_path_set("");
    }
};

std::string noise(size_t bytes)
{
    std::string text(bytes, '\0');
    uint32_t state = 1;
    for (char &c : text)
        c = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return text;
}

TEST_F(CalibPack, ComesBackAsItWentIn)
{
    // 153582 bytes and the header fill the first slice exactly.
    for (const size_t bytes : {size_t{1}, size_t{5000}, size_t{153582}, size_t{153583}, size_t{400000}})
        for (const bool compress : {false, true}) {
            SCOPED_TRACE(::testing::Message() << bytes << (compress ? " zipped" : ""));
            const std::string file = noise(bytes);
            write_file(own, file);
            ASSERT_TRUE(_tqcam_param_encode_construct(own.c_str(), "pack", 0x00010002, compress));
            EXPECT_FALSE(fs::exists("tmp.zip"));
            std::string pack = content_of("pack");
            ASSERT_EQ(pack.size() % CALIB_PACK_SLICE, 0u);
            auto *head = reinterpret_cast<uint8_t *>(pack.data());
            calib_pack_hdr_t hdr = calib_pack_hdr_read(head);
            EXPECT_EQ(hdr.fsize, pack.size());
            EXPECT_EQ(hdr.compressed, compress);
            EXPECT_EQ(hdr.ver, 0x00010002u);
            EXPECT_EQ(hdr.ts, 0u); // noise is no calibration
            if (!compress) {
                EXPECT_EQ(hdr.dsize, bytes);
                EXPECT_EQ(pack.size(), bytes <= 153582 ? 153600u : (bytes + 18 + 153599) / 153600 * 153600);
            }
            if (18 + hdr.dsize < pack.size()) {
                EXPECT_EQ(pack.back(), 1);
            }
            // Without a time stamp a pack is refused.
            fs::remove(own);
            _calib_pk_parse(&dev, "pack");
            EXPECT_FALSE(fs::exists(own));
            hdr.ts = 1;
            calib_pack_hdr_write(head, hdr);
            write_file("pack", pack);
            _calib_pk_parse(&dev, "pack");
            EXPECT_EQ(content_of(own), file);
            EXPECT_FALSE(fs::exists("pack"));
            EXPECT_FALSE(fs::exists("tmp.zip"));
        }
    EXPECT_FALSE(_tqcam_param_encode_construct("missing", "pack", 0, true));
    EXPECT_FALSE(_tqcam_param_encode_construct(own.c_str(), "no/folder", 0, true));
}

TEST_F(CalibPack, SizesThatDisagree)
{
    const calib_pack_hdr_t good = {1, 0, 0, 1, 118, 100};
    static const struct {
        const char *what;
        uint8_t valid, compressed;
        uint32_t ts, fsize, dsize;
        size_t length;
        bool taken;
    } cases[] = {
        {"as it should be", 1, 0, 1, 118, 100, 118, true},
        {"valid in another way", 2, 0, 1, 118, 100, 118, true},
        {"neither plain nor zip", 1, 2, 1, 118, 100, 118, true}, // only 1 is a zip
        {"padded", 1, 0, 1, 150, 100, 150, true},
        {"invalid", 0, 0, 1, 118, 100, 118, false},
        {"no time stamp", 1, 0, 0, 118, 100, 118, false},
        {"file cut", 1, 0, 1, 118, 100, 117, false},
        {"file longer", 1, 0, 1, 118, 100, 119, false},
        {"payload beyond the end", 1, 0, 1, 118, 101, 118, false},
        {"payload that wraps", 1, 0, 1, 118, 0xFFFFFFF0, 118, false},
        {"no payload", 1, 0, 1, 118, 0, 118, false},
        {"header cut", 1, 0, 1, 17, 1, 17, false},
        {"empty", 1, 0, 1, 0, 0, 0, false},
        {"no zip", 1, 1, 1, 118, 100, 118, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        calib_pack_hdr_t hdr = good;
        hdr.valid = c.valid;
        hdr.compressed = c.compressed;
        hdr.ts = c.ts;
        hdr.fsize = c.fsize;
        hdr.dsize = c.dsize;
        std::string pack(std::max<size_t>(c.length, 18), 'x');
        calib_pack_hdr_write(reinterpret_cast<uint8_t *>(pack.data()), hdr);
        pack.resize(c.length);
        write_file("pack", pack);
        fs::remove(own);
        _calib_pk_parse(&dev, "pack");
        EXPECT_EQ(fs::exists(own), c.taken);
        EXPECT_EQ(fs::exists("pack"), !c.taken) << "a refused pack stays for people to look at";
    }
    _calib_pk_parse(&dev, "missing");
    EXPECT_TRUE(log.has("[_calib_pk_parse]Open missing failed"));
}

struct Entry {
    std::string name, content;
    uint32_t unix_mode = 0;
};

void make_zip(const std::vector<Entry> &entries)
{
    fs::remove("a.zip");
    zip_t *zip = zip_open("a.zip", ZIP_CREATE | ZIP_TRUNCATE, nullptr);
    ASSERT_NE(zip, nullptr);
    for (const Entry &e : entries) {
        zip_source_t *source = zip_source_buffer(zip, e.content.data(), e.content.size(), 0);
        const auto i = static_cast<zip_uint64_t>(zip_file_add(zip, e.name.c_str(), source, 0));
        if (e.unix_mode != 0)
            zip_file_set_external_attributes(zip, i, 0, ZIP_OPSYS_UNIX, e.unix_mode << 16);
    }
    ASSERT_EQ(zip_close(zip), 0);
}

// What an extraction to data/ left there and beside it.
std::string tree()
{
    std::vector<std::string> names;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator("."))
        if (entry.is_regular_file() && entry.path() != "./a.zip")
            names.push_back(entry.path().string());
    std::sort(names.begin(), names.end());
    std::string text;
    for (const std::string &name : names)
        text += name + " ";
    return text;
}

TEST(ZipArchive, RefusesWhatMeansHarm)
{
    static const std::string big((64 << 20) + 1, '\0');
    static const struct {
        const char *what;
        std::vector<Entry> entries;
        const char *left; // files afterwards; nullptr: refused, with nothing written
    } cases[] = {
        {"files and folders",
         {{"a", "1"}, {"b/c/d", "2"}, {"e/", ""}, {"b/./f", "3"}},
         "./data/a ./data/b/c/d ./data/b/f "},
        {"backslashes", {{"b\\c", "1"}}, "./data/b/c "},
        {"dots that don't climb", {{"..a/...", "1"}}, "./data/..a/... "},
        {"absolute", {{"good", ""}, {"/tmp/tqcam-evil", "x"}}, nullptr},
        {"absolute, other slash", {{"\\tmp\\x", "x"}}, nullptr},
        {"climbing", {{"good", ""}, {"../evil", "x"}}, nullptr},
        {"climbing inside", {{"a/../../evil", "x"}}, nullptr},
        {"climbing, other slash", {{"a\\..\\..\\evil", "x"}}, nullptr},
        {"ends in a climb", {{"a/..", "x"}}, nullptr},
        {"link", {{"good", ""}, {"l", "/etc", S_IFLNK | 0777}}, nullptr},
        {"64 MiB and a byte", {{"big", big}}, nullptr},
        {"together beyond 64 MiB",
         {{"half", big.substr(0, 40 << 20)}, {"other", big.substr(0, 40 << 20)}},
         nullptr},
        {"a file as a folder", {{"a", "1"}, {"a/b", "2"}}, "./data/a "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        fs::create_directory("data");
        make_zip(c.entries);
        const int r = tqzip::zip_extract("a.zip", "data/", nullptr, nullptr);
        EXPECT_EQ(tree(), c.left ? c.left : "");
        EXPECT_EQ(r, c.left && std::strcmp(c.what, "a file as a folder") != 0 ? 0 : -1);
    }
}

TEST(ZipArchive, LinksThatLieThereLeadNowhere)
{
    TempDir dir;
    fs::create_directory("data");
    fs::create_directory("outside");
    fs::create_symlink("../outside", "data/sub");
    fs::create_symlink("../outside/file", "data/file");
    for (const char *name : {"sub/x", "file", "sub/"}) {
        make_zip({{name, name[3] == '/' && !name[4] ? "" : "evil"}});
        EXPECT_EQ(tqzip::zip_extract("a.zip", "data/", nullptr, nullptr), -1) << name;
    }
    EXPECT_EQ(tree(), "");
    EXPECT_LT(tqzip::zip_extract("missing.zip", "data/", nullptr, nullptr), 0);
    EXPECT_LT(tqzip::zip_extract("a.zip", "no/such/", nullptr, nullptr), 0);
}

TEST(ZipArchive, CallbackAndLevels)
{
    TempDir dir;
    for (const int level : {-1, 0, 6, 9, 10}) {
        tqzip::zip_t *zip = tqzip::zip_open("a.zip", level, 'w');
        ASSERT_NE(zip, nullptr) << level;
        EXPECT_EQ(tqzip::zip_entry_write(zip, "x", 1), -1) << "no entry is open";
        EXPECT_EQ(tqzip::zip_entry_open(zip, "one\\two"), 0);
        EXPECT_EQ(tqzip::zip_entry_open(zip, "three"), -1) << "one at a time";
        EXPECT_EQ(tqzip::zip_entry_write(zip, "hello ", 6), 0);
        EXPECT_EQ(tqzip::zip_entry_write(zip, "there", 5), 0);
        EXPECT_EQ(tqzip::zip_entry_close(zip), 0);
        EXPECT_EQ(tqzip::zip_close(zip), 0);
        fs::remove_all("one");
        std::string seen;
        const auto on_entry = [](const char *path, void *arg) {
            *static_cast<std::string *>(arg) += path;
            return 0;
        };
        EXPECT_EQ(tqzip::zip_extract("a.zip", "./", on_entry, &seen), 0);
        EXPECT_EQ(seen, "./one/two");
        EXPECT_EQ(content_of("one/two"), "hello there");
    }
    EXPECT_LT(tqzip::zip_extract(
                  "a.zip", "", [](const char *, void *) { return -1; }, nullptr),
              0);
    EXPECT_EQ(tqzip::zip_open("a.zip", 11, 'w'), nullptr);
    EXPECT_EQ(tqzip::zip_open("a.zip", 6, 'x'), nullptr);
    EXPECT_EQ(tqzip::zip_open("missing.zip", 6, 'r'), nullptr);
}

} // namespace
