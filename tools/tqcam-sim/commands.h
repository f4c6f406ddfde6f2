// What the tool can do. Each command throws SimError when it fails.
#pragma once

#include "options.h"

struct RecordOptions {
    CameraOptions camera;
    std::string out;
    uint32_t frames = 30;
    bool no_truth = false;
};

void record_add(CLI::App &app, RecordOptions &options);
void record_run(const RecordOptions &options);
