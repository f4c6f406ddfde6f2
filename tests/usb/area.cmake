# The program brings a libusb of its own: its functions stand in for the library's, and so the link under test
# talks to a scripted peer.
target_sources(test_usb PRIVATE ${dir}/fake_libusb.cpp)
