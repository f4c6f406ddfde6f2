#include <cmath>
#include <cstring>
#include <gtest/gtest.h>

#include "calib_file_writer.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "tqcam_param.h"

using bytes_t = std::vector<uint8_t>;

static bytes_t _small_file(uint8_t ver)
{
    sim_calib_file_t file = sim_calib_file(ver, 141);
    file.hdr.blk_ts = 77;
    if (ver < 140) {
        sim_calib_add_images(file, {}, {{0, 0, 0, 0, {1, 2, 3}}, {0, 0, 0, 0, {4, 5, 6}}});
        sim_calib_add_images(file, {}, {{0, 0, 0, 0, {1}}});
    } else {
        sim_calib_add_raw(file, 200, {1, 2, 3, 4, 5, 6, 7});
        sim_calib_add_raw(file, 6, {});
        sim_calib_add_raw(file, 201, bytes_t(70000, 255)); // more than is read at once
    }
    return sim_calib_file_bytes(file);
}

static bool _opens(const bytes_t &bytes, tqcam_param_t *param)
{
    EXPECT_TRUE(sim_calib_save("calib.bin", bytes));
    return tqcam_param_open_file(param, "calib.bin");
}

// What each generation of file holds is listed; a file is refused wherever it is cut, whatever sizes it
// claims.
TEST(ParamFile, ListsTheBlocksOfBothGenerations)
{
    struct {
        uint8_t ver;
        size_t n, size_at;
        std::vector<uint32_t> sizes, offsets;
    } cases[] = {
        {150, 3, 1, {12, 5, 70005}, {1202, 1214, 1219}},
        {139, 2, 22, {42 + 2 * 26, 42 + 22}, {1202, 1202 + 42 + 2 * 26}},
    };
    TempDir dir;
    tqcam_param_t param;
    for (const auto &c : cases) {
        SCOPED_TRACE(int{c.ver});
        bytes_t bytes = _small_file(c.ver);
        ASSERT_TRUE(_opens(bytes, &param));
        EXPECT_EQ(param.opened, 1);
        for (size_t i = 0; i < c.n; i++) {
            EXPECT_EQ(param.blk[i].size, c.sizes[i]);
            EXPECT_EQ(param.blk_ofs[i], c.offsets[i]);
        }
        EXPECT_EQ(param.blk[0].type, c.ver == 150 ? 200 : 1);
        tqcam_param_close(&param);
        EXPECT_EQ(param.opened, 0);
        tqcam_param_close(&param);
        for (size_t cut = 0; cut < bytes.size(); cut += cut < 1300 ? 13 : 4999) {
            const bytes_t part(bytes.begin(), bytes.begin() + static_cast<long>(cut));
            // The old format's payloads are passed over unread: its last one may be missing.
            EXPECT_EQ(_opens(part, &param), c.ver == 139 && cut >= bytes.size() - 22) << cut;
            tqcam_param_close(&param);
        }
        for (uint32_t size : {0x7FFFFFFFu, 0xFFFFFFFFu}) { // beyond the table, whose values have 32 bits
            std::memcpy(&bytes[1202 + c.size_at], &size, 4);
            EXPECT_FALSE(_opens(bytes, &param));
            EXPECT_FALSE(param.fp);
        }
    }
}

static void _set_lens(par_tq_hdr &h, double cx, double cy, size_t name_len)
{
    h.lens.cx = cx;
    h.lens.cy = cy;
    std::memset(h.name, 'L', name_len);
}

TEST(ParamFile, SaysWhatIsWrong)
{
    struct {
        uint8_t ver;
        void (*edit)(par_tq_hdr &);
        const char *line; // "" for a file that opens
        bool left_open;
    } cases[] = {
        {150, [](auto &h) { h.magic = 1000; }, "[_param_verify]wrong magic id (ver=150): 0x3e8\n", false},
        {150, [](auto &h) { h.ver = 139; }, "wrong magic id (ver=139)", false},
        {150, [](auto &h) { _set_lens(h, 100, 1024.1, 1); },
         "wrong range for lens param: cx/cy=100.0/1024.1, name=", false},
        {150, [](auto &h) { _set_lens(h, NAN, 100, 64); }, "wrong range for lens param: cx/cy=nan", false},
        {150, [](auto &h) { h.blk_cnt = -1; }, "too much param blks: -1\n", false},
        {150, [](auto &h) { h.blk_size = 14; }, "wrong blk total size: 14,max blk size is 1073741824\n",
         false},
        {150, [](auto &h) { h.blk_cnt = 4; }, "[tqcam_param_open_file]read par_dev_hdr failed", false},
        {139, [](auto &h) { h.blk_cnt = 3; }, "[tqcam_param_open_file]read blk_unit_hdr failed", false},
        {150, [](auto &h) { h.blk_size = 70021; }, "param blks size wrong: size=70022 (expect 70021)\n",
         true},
        {150, [](auto &h) { h.blk_cksum ^= 1; }, "param blks cksum failed: ck_sum=0x", true},
        {139, [](auto &h) { h.blk_cksum = 1, h.blk_size = 3; }, "", false}, // the old format has neither
    };
    TempDir dir;
    LogCapture log;
    tqcam_param_t param;
    for (const auto &c : cases) {
        bytes_t bytes = _small_file(c.ver);
        par_tq_hdr hdr;
        std::memcpy(&hdr, bytes.data(), sizeof(hdr));
        c.edit(hdr);
        sim_calib_set_header(bytes, hdr);
        log.clear();
        EXPECT_EQ(_opens(bytes, &param), !*c.line) << c.line << log.text();
        EXPECT_TRUE(log.has(c.line)) << log.text();
        EXPECT_EQ(!param.opened && param.fp, c.left_open) << c.line;
        if (param.fp)
            fclose(param.fp);
    }
    bytes_t bytes = _small_file(150);
    bytes[700] ^= 1; // a reserved byte counts as well
    EXPECT_FALSE(_opens(bytes, &param));
    EXPECT_TRUE(log.has("[_param_verify]wrong cksum (ver=150): 0x"));
    bytes = _small_file(139);
    bytes[1202] = 3;
    EXPECT_FALSE(_opens(bytes, &param));
    EXPECT_TRUE(log.has("wrong blk unit type: 3\n"));
}

TEST(LensText, TakesTheLastTwoNumbersForTheSize)
{
    std::string halves, many = "1 2 3 4";
    for (int i = 0; i < 10000; i++) {
        halves += i < 14 ? " 0.5" : "";
        many += " 7";
    }
    struct {
        std::string text;
        int n_dcoef; // -1: skipped
        uint32_t w, h;
    } cases[] = {
        {"160.5 120 200 201\n320 240", 0, 320, 240},
        {"1 2 3 4 -0.25 1e-3\t0.1 640.0004 480\n", 3, 640, 480},
        {"1 2 3 4" + halves + " 320 240 99 98 97", 14, 320, 240}, // the surplus is not read
        {many, 14, 7, 7},
        {"", -1, 0, 0},
        {"1 2 3 4 320 0.99", -1, 0, 0},
        {"1 2 3 4 1e12 240", -1, 0, 0},
        {"1 2 3 4 nan 240", -1, 0, 0},
        {"a lens of glass", -1, 0, 0}, // words stand for zeros without end
    };
    TempDir dir;
    const auto read = [](const std::string &text, tqcam_lens_param_t *lens) {
        EXPECT_TRUE(sim_calib_save("lens.txt", bytes_t(text.begin(), text.end())));
        return tqcam_param_len_load_2d_file(lens, "lens.txt");
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        tqcam_lens_param_t lens{};
        lens.n_dcoef = -1;
        EXPECT_EQ(read(c.text, &lens), c.n_dcoef >= 0);
        EXPECT_EQ(int{lens.n_dcoef}, c.n_dcoef);
        EXPECT_EQ(uint32_t{lens.img_w}, c.w);
        EXPECT_EQ(uint32_t{lens.img_h}, c.h);
    }
    tqcam_lens_param_t lens;
    ASSERT_TRUE(read("160.5 120 200 201 -0.25 0.125 320 240", &lens));
    EXPECT_EQ(double{lens.cy}, 120);
    EXPECT_EQ(double{lens.fx}, 200);
    EXPECT_EQ(double{lens.dcoef[1]}, 0.125);
    EXPECT_EQ(double{lens.dcoef[2]}, 0); // where the width stood
    EXPECT_FALSE(tqcam_param_len_load_2d_file(&lens, "none.txt"));
}

TEST(LensBinary, ProvesItsCounts)
{
    tq_lens_bin_t head{};
    head.img_w = 4;
    head.img_h = 2;
    head.cx = 1.5f;
    const bytes_t whole =
        sim_calib_lens_bytes(head, std::vector<float>(16, 0.5f), std::vector<float>(32, 2.0f));
    TempDir dir;
    const auto load = [](const bytes_t &bytes) {
        EXPECT_TRUE(sim_calib_save("lens.bin", bytes));
        return tqcam_param_len_load_bin_file("lens.bin");
    };
    tq_lens_bin_t *lens = load(whole);
    ASSERT_TRUE(lens);
    EXPECT_EQ(std::memcmp(lens, whole.data(), whole.size()), 0);
    EXPECT_EQ(tq_lens_bin_grad(lens), reinterpret_cast<uint8_t *>(lens) + 225);
    EXPECT_EQ(tq_lens_bin_reflect(lens), reinterpret_cast<uint8_t *>(lens) + 225 + 64);
    tqcam_param_len_unload(lens);

    struct {
        uint32_t w, h, n_grad, n_reflect, size;
    } bad[] = {
        {4, 2, 17, 32, 220 + 4 * 49}, // more than two a pixel
        {4, 2, 16, 33, 220 + 4 * 49}, // more than four a pixel
        {4, 2, 16, 32, 220},          // size and counts disagree
        {0, 0, 1, 0, 224},
        {65536, 65536, 0x40000000, 0x40000000, 220}, // the data's size has 33 bits
        {65535, 65535, 0x30000000, 0, 0xC00000DC},   // more than the file holds
    };
    for (const auto &b : bad) {
        bytes_t bytes = whole;
        head.img_w = b.w;
        head.img_h = b.h;
        head.n_grad = b.n_grad;
        head.n_reflect = b.n_reflect;
        head.size = b.size;
        std::memcpy(bytes.data(), &head, sizeof(head));
        EXPECT_FALSE(load(bytes)) << b.n_grad;
    }
    for (size_t cut : {size_t{0}, size_t{224}, whole.size() - 1})
        EXPECT_FALSE(load(bytes_t(whole.begin(), whole.begin() + static_cast<long>(cut))));
    EXPECT_FALSE(tqcam_param_len_load_bin_file("none.bin"));
}
