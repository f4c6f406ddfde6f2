# The program brings a libusb of its own: its functions stand in for the library's, and so the link under test
# talks to a scripted peer.
target_sources(test_usb PRIVATE ${dir}/scripted_peer.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/support/libusb/fake_libusb.cpp)

# What scripts/usb-guest.sh runs behind a real kernel's USB stack, on the real libusb.
add_executable(usb_guest_checks ${dir}/guest/guest_checks.cpp)
target_include_directories(usb_guest_checks PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(usb_guest_checks PRIVATE tqcam GTest::gtest_main tqcam_flags)

# The real libusb on an emulated usbfs. Its library stands in for the C library's calls and so must be the first
# that the program meets. The thread sanitizer doesn't see how the calls pass between its threads.
pkg_check_modules(UMOCKDEV IMPORTED_TARGET umockdev-1.0)
find_library(UMOCKDEV_PRELOAD NAMES libumockdev-preload.so.0) # in another package than the headers
if(UMOCKDEV_FOUND AND UMOCKDEV_PRELOAD AND NOT TQCAM_SANITIZE MATCHES "thread")
  add_executable(test_usbfs ${dir}/usbfs/usbfs_checks.cpp)
  target_link_options(test_usbfs PRIVATE -Wl,--no-as-needed ${UMOCKDEV_PRELOAD} -Wl,--as-needed)
  target_link_libraries(test_usbfs PRIVATE test_support PkgConfig::UMOCKDEV)
  gtest_discover_tests(test_usbfs TEST_PREFIX "usb." DISCOVERY_MODE PRE_TEST PROPERTIES LABELS usb TIMEOUT 60)
endif()
