// A test that begins with an open camera of a chip family, in a folder of its own.
#pragma once

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"

template <class Camera> struct OpenCamera : ::testing::Test {
    TempDir dir;
    LogCapture log;
    Camera cam;
    decltype(cam.priv()) p = nullptr;

    void SetUp() override
    {
        ASSERT_TRUE(cam.open());
        p = cam.priv();
        cam.take_sent();
    }
};
