# The program stands in for sleep(), so that what waits after a write takes no time, and makes archives that no
# decent program would.
target_link_libraries(test_transfer PRIVATE PkgConfig::ZIP)
