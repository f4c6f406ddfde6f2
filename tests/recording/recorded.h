// Reads a recording back as one list of what it holds, in file order.
#pragma once

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "replay/oni_reader.h"
#include "tqcam.h"

struct Recorded {
    // "Device int TQ_DEV_ID=5", "TQ_REPLAY bytes TQ_FRAME_INFO=100"; "TQ_REPLAY frame 64 x 7" for a frame of
    // 64 bytes whose first is 7. Published properties are left out.
    std::vector<std::string> lines;
    std::vector<std::string> nodes;           // names, by node id
    std::vector<std::vector<uint8_t>> frames; // of the stream that was asked for
    std::vector<tqcam_frame_info_t> infos;    // in front of them
    std::vector<uint8_t> calib;               // all TQ_FILEDATA_CALIB records together
    oni_reader_t *reader = nullptr;

    Recorded(const char *path, const char *stream)
    {
        reader = oni_reader_open(path, on_property, this);
        if (!reader)
            return;
        oni_istream_t *wanted = nullptr;
        for (uint32_t i = 0; i < reader->max_node_id; i++) {
            nodes.push_back(reader->streams[i].valid ? reader->streams[i].name : "");
            if (nodes.back() == stream)
                wanted = &reader->streams[i];
        }
        while (wanted && oni_istream_next(wanted) == 1) {
            std::vector<uint8_t> frame(reader->value_len);
            oni_istream_deliver(wanted, frame.data(), static_cast<int>(frame.size()));
            lines.push_back(std::string(stream) + " frame " + std::to_string(frame.size()) + " x " +
                            std::to_string(frame.empty() ? -1 : frame[0]));
            frames.push_back(frame);
        }
    }
    ~Recorded() { oni_reader_close(reader); }
    Recorded(const Recorded &) = delete;
    Recorded &operator=(const Recorded &) = delete;

    // The lines of one node.
    std::vector<std::string> of(const std::string &node) const
    {
        std::vector<std::string> out;
        for (const std::string &line : lines)
            if (line.compare(0, node.size() + 1, node + " ") == 0)
                out.push_back(line.substr(node.size() + 1));
        return out;
    }

  private:
    static void on_property(oni_reader_t *reader, int kind, const char *name, const void *value,
                            uint32_t size, void *arg)
    {
        auto *self = static_cast<Recorded *>(arg);
        const oni_istream_t *node = oni_reader_cur_stream(reader);
        if (!node || strncmp(name, "TQ_", 3) != 0)
            return;
        uint64_t word = 0;
        double real = 0;
        memcpy(&word, value, size < 8 ? size : 8);
        memcpy(&real, &word, 8);
        std::string text = std::string(node->name) + " ";
        if (kind == ONI_PROP_INT)
            text += "int " + std::string(name) + "=" + std::to_string(word);
        else if (kind == ONI_PROP_REAL)
            text += "real " + std::string(name) + "=" + std::to_string(real);
        else if (kind == ONI_PROP_STRING)
            text += "text " + std::string(name) + "=" + static_cast<const char *>(value);
        else
            text += "bytes " + std::string(name) + "=" + std::to_string(size);
        self->lines.push_back(text);
        if (strcmp(name, "TQ_FRAME_INFO") == 0 && size == sizeof(tqcam_frame_info_t)) {
            self->infos.emplace_back();
            memcpy(&self->infos.back(), value, size);
        }
        if (strcmp(name, "TQ_FILEDATA_CALIB") == 0)
            self->calib.insert(self->calib.end(), static_cast<const uint8_t *>(value),
                               static_cast<const uint8_t *>(value) + size);
    }
};
