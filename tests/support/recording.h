// Recordings of a camera, made with the library's own writer: a device, then streams with properties and
// frames.
#pragma once

#include <string>
#include <vector>

#include "replay/oni_writer.h"
#include "tqcam.h"

using Bytes = std::vector<uint8_t>;

class Recording {
  public:
    explicit Recording(const char *path) : writer_(oni_writer_open(path))
    {
        stream("Device", 1);
        integer("TQ_DEV_ID", 0x1122334455667788);
        text("TQ_PRODUCT", "CAM-EPC660");
    }
    ~Recording() { oni_writer_close(writer_); }
    Recording(const Recording &) = delete;
    Recording &operator=(const Recording &) = delete;

    // The current stream ends and another begins.
    oni_ostream_t *stream(const char *name, uint32_t type = 2)
    {
        oni_ostream_close(stream_);
        const oni_stream_cfg_t cfg = {type, name, type == 1 ? 0u : 101u, 4096, 4, 4, 2, 30};
        return stream_ = oni_ostream_open(writer_, &cfg);
    }
    void integer(const char *key, uint64_t v) { oni_ostream_set_property(stream_, ONI_PROP_INT, key, &v, 8); }
    void text(const char *key, const char *v)
    {
        oni_ostream_set_property(stream_, ONI_PROP_STRING, key, v, 0);
    }
    void general(const char *key, const Bytes &v)
    {
        oni_ostream_set_property(stream_, ONI_PROP_GENERAL, key, v.data(), static_cast<uint32_t>(v.size()));
    }
    // A frame of n bytes of one value, which is also its time in milliseconds.
    void frame(uint8_t value, uint32_t n = 64)
    {
        oni_ostream_save_frame(stream_, Bytes(n, value).data(), n, value * 1000u);
    }

  private:
    oni_writer_t *writer_;
    oni_ostream_t *stream_ = nullptr;
};
