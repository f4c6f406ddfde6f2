// A recording read back: what belongs to a node.
#pragma once

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "replay/oni_reader.h"

struct Recorded {
    // In file order: "TQ_DEV_ID=5", "TQ_FRAME_INFO=100 bytes", "frame of 64". Published properties are left
    // out.
    std::vector<std::string> lines;
    std::map<std::string, std::string> values; // of each property with bytes, one behind the other
    std::string node, frames;                  // the bytes of all frames

    Recorded(const char *path, const char *name) : node(name)
    {
        oni_reader_t *reader = oni_reader_open(path, on_property, this);
        for (uint32_t i = 0; reader && i < reader->max_node_id; i++) {
            oni_istream_t *s = &reader->streams[i];
            while (s->valid && s->name == node && oni_istream_next(s) == 1) {
                std::string frame(reader->value_len, 0);
                oni_istream_deliver(s, frame.data(), static_cast<int>(frame.size()));
                lines.push_back("frame of " + std::to_string(frame.size()));
                frames += frame;
            }
        }
        oni_reader_close(reader);
    }

  private:
    static void on_property(oni_reader_t *reader, int kind, const char *name, const void *value,
                            uint32_t size, void *arg)
    {
        auto *self = static_cast<Recorded *>(arg);
        const oni_istream_t *s = oni_reader_cur_stream(reader);
        if (!s || self->node != s->name || strncmp(name, "TQ_", 3) != 0)
            return;
        const char *bytes = static_cast<const char *>(value);
        uint64_t word = 0;
        memcpy(&word, bytes, size < 8 ? size : 8);
        std::string text = std::to_string(word);
        if (kind == ONI_PROP_STRING)
            text = bytes;
        if (kind == ONI_PROP_GENERAL) {
            text = std::to_string(size) + " bytes";
            self->values[name].append(bytes, size);
        }
        self->lines.push_back(std::string(name) + "=" + text);
    }
};
