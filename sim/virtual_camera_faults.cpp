#include "virtual_camera_faults.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace {

typedef struct fault_row_t {
    const char *name, *text;
    uint32_t value;
} fault_row_t;

// In the order of vcam_fault_kind_t.
constexpr fault_row_t ROWS[VCAM_FAULT_COUNT] = {
    {"lose-packet", "a stream packet is not sent", 0},
    {"bit-error", "one bit of a packet's payload is flipped; value: its byte", 1000},
    {"bad-hash", "the hash of a packet header is wrong", 0},
    {"bad-checksum", "the checksum in a packet header is wrong", 0},
    {"junk", "bytes without meaning stand before a packet; value: how many", 100},
    {"cut-frame", "only half of a frame is sent", 0},
    {"pause", "the stream stands still in the middle of a transfer; value: ms", 3000},
    {"short-in", "a transfer ends early; value: bytes", 1000},
    {"empty-in", "a transfer without bytes", 0},
    {"stall-in", "the bulk IN pipe halts", 0},
    {"late-in", "a transfer completes late; value: ms", 200},
    {"unplug-in", "the camera is pulled out in a transfer", 0},
    {"stall-cmd", "a command is answered with a stall", 0},
    {"hang-cmd", "a command is not answered", 0},
    {"short-cmd", "a command moves a byte less than asked", 0},
    {"slow-cmd", "a command is answered late; value: ms", 500},
    {"unplug-cmd", "the camera is pulled out in a command", 0},
    {"fail-cmd", "a command fails, with a message in the status", 0},
    {"busy", "the status shows busy after a command; value: reads", 5},
    {"other-status", "the status tells of another command", 0},
    {"erase-polls", "an erase takes longer; value: polls", 20},
    {"repeat-ack", "an ack repeats the number before it", 0},
    {"lose-out", "a data packet is lost in the camera", 0},
    {"stall-out", "the bulk OUT pipe halts", 0},
    {"hang-out", "a bulk OUT transfer is not taken", 0},
    {"unplug-out", "the camera is pulled out in a bulk OUT transfer", 0},
};

} // namespace

bool vcam_fault_parse(vcam_faults_t *faults, const std::string &text, std::string *error)
{
    std::istringstream in(text);
    std::string name, part;
    std::getline(in, name, ',');
    size_t kind = 0;
    while (kind < VCAM_FAULT_COUNT && name != ROWS[kind].name)
        kind++;
    if (kind == VCAM_FAULT_COUNT) {
        *error = "there is no fault \"" + name + "\"";
        return false;
    }
    vcam_fault_t fault = {1, 0, 0, ROWS[kind].value, 0, 0, 0};
    while (std::getline(in, part, ',')) {
        const size_t mark = part.find('=');
        const std::string key = part.substr(0, mark);
        uint32_t *field = key == "first"   ? &fault.first
                          : key == "every" ? &fault.every
                          : key == "times" ? &fault.times
                          : key == "value" ? &fault.value
                          : key == "on"    ? &fault.on
                                           : nullptr;
        char *end = nullptr;
        const char *digits = mark == std::string::npos ? "" : part.c_str() + mark + 1;
        const unsigned long number = strtoul(digits, &end, 0);
        if (field == nullptr || *digits < '0' || *digits > '9' || *end != '\0' || number > 0xFFFFFFFFu) {
            *error = "\"" + part + "\" is not first, every, times, value or on with a number behind \"=\"";
            return false;
        }
        *field = static_cast<uint32_t>(number);
    }
    if (fault.times == 0)
        fault.times = fault.every == 0 ? 1 : 0xFFFFFFFF;
    if (fault.every == 0)
        fault.every = 1;
    if (fault.first == 0)
        fault.first = 1;
    faults->fault[kind] = fault;
    return true;
}

std::string vcam_fault_help(void)
{
    std::string text;
    for (const fault_row_t &row : ROWS) {
        char line[128];
        snprintf(line, sizeof line, "  %-14s%s", row.name, row.text);
        text += line;
        if (row.value != 0)
            text += " (" + std::to_string(row.value) + ")";
        text += "\n";
    }
    return text;
}

bool vcam_fault_fires(vcam_faults_t *faults, vcam_fault_kind_t kind, uint32_t command)
{
    vcam_fault_t &f = faults->fault[kind];
    if (f.times == 0 || (f.on != 0 && f.on != command))
        return false;
    f.seen++;
    if (f.seen < f.first || (f.seen - f.first) % f.every != 0 || f.fired >= f.times)
        return false;
    f.fired++;
    return true;
}
