// Faults of the virtual camera: what goes wrong, and when.
//
// Every fault counts its opportunities: stream packets, frames, answers on the bulk pipes, commands. It fires
// at the first-th opportunity, then at every every-th after it, times times in all.
#pragma once

#include <cstdint>
#include <string>

typedef enum {
    // Stream packets and frames.
    VCAM_LOSE_PACKET,
    VCAM_BIT_ERROR,
    VCAM_BAD_HASH,
    VCAM_BAD_CHECKSUM,
    VCAM_JUNK,
    VCAM_CUT_FRAME,
    // Answers on the bulk IN pipe.
    VCAM_PAUSE,
    VCAM_SHORT_IN,
    VCAM_EMPTY_IN,
    VCAM_STALL_IN,
    VCAM_LATE_IN,
    VCAM_UNPLUG_IN,
    // Commands.
    VCAM_STALL_CMD,
    VCAM_HANG_CMD,
    VCAM_SHORT_CMD,
    VCAM_SLOW_CMD,
    VCAM_UNPLUG_CMD,
    VCAM_FAIL_CMD,
    VCAM_BUSY,
    VCAM_OTHER_STATUS,
    // Data transfer.
    VCAM_ERASE_POLLS,
    VCAM_REPEAT_ACK,
    VCAM_LOSE_OUT,
    VCAM_STALL_OUT,
    VCAM_HANG_OUT,
    VCAM_UNPLUG_OUT,
    VCAM_FAULT_COUNT
} vcam_fault_kind_t;

typedef struct vcam_fault_t {
    uint32_t first, every, times; // times 0: the fault is off
    uint32_t value;
    uint32_t on; // commands: type << 8 | value of the only command that counts, 0: all
    uint32_t seen, fired;
} vcam_fault_t;

typedef struct vcam_faults_t {
    vcam_fault_t fault[VCAM_FAULT_COUNT];
} vcam_faults_t;

// Adds what "NAME[,first=N][,every=N][,times=N][,value=N][,on=0xTTVV]" says. By default a fault fires once,
// at its first opportunity; with every and no times, without end. False, with a sentence in error, when that
// says nothing.
bool vcam_fault_parse(vcam_faults_t *faults, const std::string &text, std::string *error);

// A line for each fault: name, what it does, what value means.
std::string vcam_fault_help(void);

// Counts an opportunity; true when the fault fires.
bool vcam_fault_fires(vcam_faults_t *faults, vcam_fault_kind_t kind, uint32_t command = 0);
