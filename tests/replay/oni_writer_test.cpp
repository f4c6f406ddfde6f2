// What the writer puts into a file, compared byte by byte with the container's layout.
#include "replay/oni_writer.h"

#include <gtest/gtest.h>

#include "replay/oni_bytes.h"
#include "support/temp_dir.h"

namespace {

const oni_stream_cfg_t DEVICE = {1, nullptr, 0, 0, 0, 0, 0, 0};
const oni_stream_cfg_t RAW = {2, "TQ_REPLAY", 101, 4096, 4, 2, 2, 30};

// The places of the seek tables stand ahead of them: a first run finds what the second puts in.
std::string expected_file(uint64_t *device_seek, uint64_t *raw_seek)
{
    const std::string mode = OniBytes().u32(4).u32(2).u32(30).out;
    OniBytes f;
    f.file_header(2);
    const uint64_t device_pos = f.pos();
    f.node(1, "Device", 1, 0, 0, *device_seek).record(9, 1, 0);
    f.record(4, 1, 0, OniBytes().str("TQ_REP_VER").u32(8).put(1.0));
    f.record(5, 1, 0, OniBytes().str("TQ_PRODUCT").str("cam"));
    const uint64_t id_pos = f.pos();
    f.int_prop(1, "TQ_DEV_ID", 5).int_prop(1, "TQ_DEV_ID", 6, id_pos);
    f.record(7, 1, device_pos);
    *device_seek = f.pos();
    f.record(14, 1, 0, OniBytes().raw(std::string(20, 0)), 20);

    const uint64_t raw_pos = f.pos();
    f.node(2, "TQ_REPLAY", 2, 3, 9000, *raw_seek);
    f.int_prop(2, "oniRequiredFrameSize", 16)
        .int_prop(2, "xnIsGenerating", 1)
        .int_prop(2, "xnDeviceMaxDepth", 4096);
    f.int_prop(2, "xnSupportedMapOutputModesCount", 1);
    f.general(2, "xnSupportedMapOutputModes", mode).general(2, "xnMapOutputMode", mode);
    f.general(2, "xnSupportedPixelFormats", OniBytes().u32(8).out).int_prop(2, "xnPixelFormat", 4);
    f.int_prop(2, "oniPixelFormat", 101).general(2, "xnCropping", std::string(12, 0)).record(9, 2, 0);
    const uint64_t begin = f.pos();
    f.record(8, 2, 0, OniBytes().u32(~0u).u64(~0ull)).frame(2, 0, 1000, 1, "\1\2\3");
    const uint64_t second = f.pos();
    f.frame(2, begin, 5000, 2, "\4");
    const uint64_t third = f.pos();
    f.frame(2, second, 9000, 3, "\5\6");
    f.record(7, 2, raw_pos);
    *raw_seek = f.pos();
    OniBytes table;
    table.raw(std::string(20, 0));
    table.u64(1000).u32(0).u64(begin).u64(5000).u32(0).u64(second).u64(9000).u32(0).u64(third);
    f.record(14, 2, 0, table, 80).record(11, 0, 0);
    return f.out;
}

} // namespace

TEST(OniWriter, FileHoldsWhatTheLayoutSays)
{
    TempDir dir;
    EXPECT_EQ(oni_writer_open("no/such/folder/a.oni"), nullptr);
    oni_writer_t *w = oni_writer_open("a.oni");
    oni_ostream_t *device = oni_ostream_open(w, &DEVICE);
    const double version = 1.0;
    const uint64_t ids[] = {5, 6};
    oni_ostream_set_property(device, ONI_PROP_REAL, "TQ_REP_VER", &version, 0);
    oni_ostream_set_property(device, ONI_PROP_STRING, "TQ_PRODUCT", "cam", 0);
    oni_ostream_set_property(device, ONI_PROP_INT, "TQ_DEV_ID", &ids[0], 0);
    oni_ostream_set_property(device, ONI_PROP_INT, "TQ_DEV_ID", &ids[1], 0);
    oni_ostream_close(device);
    oni_ostream_set_property(device, ONI_PROP_INT, "TQ_LATE", &ids[0], 0); // closed: does nothing
    oni_ostream_save_frame(device, ids, 8, 1);
    oni_ostream_t *raw = oni_ostream_open(w, &RAW);
    oni_ostream_save_frame(raw, "\1\2\3", 3, 1000);
    oni_ostream_save_frame(raw, "\4", 1, 5000);
    oni_ostream_save_frame(raw, "\5\6", 2, 9000);
    oni_writer_close(w);

    uint64_t device_seek = 0, raw_seek = 0;
    expected_file(&device_seek, &raw_seek);
    EXPECT_TRUE(read_text("a.oni") == expected_file(&device_seek, &raw_seek));
}

TEST(OniWriter, WhatDoesNotFitLeavesItsBytesOut)
{
    TempDir dir;
    const uint32_t most = 3146025 - 40; // a record of exactly the staging capacity
    const std::string big(most + 1, 7);
    const uint16_t good[] = {1, 2}, outside[] = {1, 4096};
    oni_writer_t *w = oni_writer_open("a.oni");
    oni_ostream_t *s = oni_ostream_open(w, &RAW);
    oni_ostream_save_frame(s, big.data(), most, 1);
    oni_ostream_save_frame(s, big.data(), most + 1, 2);
    oni_ostream_set_property(s, ONI_PROP_GENERAL, "TQ_BIG", big.data(), most); // no room beside its name
    const std::string text(300, 'x'), kept(255, 'x');
    oni_ostream_set_property(s, ONI_PROP_STRING, text.c_str(), text.c_str(), 0);
    oni_ostream_t *coded = oni_ostream_open(w, &RAW);
    coded->codec = ONI_CODEC_16ZT;
    oni_ostream_save_frame(coded, good, 4, 1);
    oni_ostream_save_frame(coded, outside, 4, 2); // can't be coded: the record before goes out again
    oni_ostream_t *many = oni_ostream_open(w, &DEVICE);
    for (uint32_t i = 1; i <= 157299; i++) // the last is one too many for the seek table
        oni_ostream_save_frame(many, "x", 1, i);
    for (int i = 4; i <= 9; i++) // eight streams are the most
        EXPECT_EQ(oni_ostream_open(w, &DEVICE) != nullptr, i <= 8) << i;
    oni_writer_close(w);
    const std::string file = read_text("a.oni");
    const std::vector<OniRecord> frames = oni_records(file, 10), tables = oni_records(file, 14);
    const OniRecord prop = oni_records(file, 5).at(0);
    EXPECT_EQ(file.substr(prop.pos, prop.end - prop.pos),
              OniBytes().record(5, 1, 0, OniBytes().str(kept).str(kept)).out);
    EXPECT_EQ(frames.at(0).payload, most);
    EXPECT_EQ(frames.at(1).payload, 0u);
    for (const OniRecord &r : {frames.at(2), frames.at(3)})
        EXPECT_EQ(file.substr(r.pos, r.end - r.pos),
                  OniBytes().frame(2, 0, 1, 1, std::string("\2\0\1\0\2\0\0\0\x5D", 9)).out);
    EXPECT_EQ(tables.at(0).payload, 60u);
    EXPECT_EQ(tables.at(2).payload, 0u);
}
