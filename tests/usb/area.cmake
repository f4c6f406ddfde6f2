# The program brings a libusb of its own: its functions stand in for the library's, and so the link under test
# talks to a scripted peer.
target_sources(test_usb PRIVATE ${dir}/scripted_peer.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/support/libusb/fake_libusb.cpp)

# What scripts/usb-guest.sh runs behind a real kernel's USB stack, on the real libusb.
add_executable(usb_guest_checks ${dir}/guest/guest_checks.cpp)
target_include_directories(usb_guest_checks PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(usb_guest_checks PRIVATE tqcam GTest::gtest_main tqcam_flags)
