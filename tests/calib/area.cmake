# What the tool makes of a file must agree with the library.
target_sources(test_calib PRIVATE ${PROJECT_SOURCE_DIR}/tools/tqcam-cli/calib_file.cpp
  ${PROJECT_SOURCE_DIR}/tools/tqcam-cli/calib_planes.cpp)
target_include_directories(test_calib PRIVATE ${PROJECT_SOURCE_DIR}/tools/tqcam-cli)
