// Presents the virtual camera to a Linux kernel over USB/IP (version 1.1.1): the vhci-hcd module takes the
// place of a host controller, and a socket carries its requests here. Either the stock usbip tool connects
// over TCP, or this program hands one end of a socket pair to the kernel itself.
#pragma once

#include "usb_descriptors.h"

#include <atomic>
#include <string>

inline constexpr uint16_t USBIP_PORT = 3240;

typedef struct usbip_server_t {
    vcam_t *cam;
    usb_device_t usb;
    usb_speed_t speed_after_reset;  // what the camera returns with when its interface was reset
    uint32_t replug_ms;             // after which a pulled camera returns; 0: never
    std::atomic<bool> in_use;       // a kernel has the camera
    std::atomic<bool> stop;         // ends everything within 100 ms
    void (*tell)(const char *line); // what happens, for people; may be NULL
} usbip_server_t;

// Why a session ended.
typedef enum {
    USBIP_CLOSED, // by the other side
    USBIP_GONE,   // the camera left the bus
    USBIP_BROKEN, // what came made no sense
    USBIP_STOPPED
} usbip_end_t;

// Serves URBs on a connected socket until it ends; closes nothing.
usbip_end_t usbip_session(usbip_server_t *server, int fd);

// A listening TCP socket, -1 with a sentence in error.
int usbip_listen(const char *host, uint16_t port, std::string *error);

// Takes connections until stop is set: lists of devices, and the import of this one by one kernel at a time.
void usbip_serve(usbip_server_t *server, int listen_fd);

// Hands the camera to the kernel of this machine (root and vhci-hcd needed) and keeps it there: after a reset
// of its interface, and after it was pulled, it returns on the same port. Until stop is set, or false with a
// sentence in error.
bool usbip_attach_local(usbip_server_t *server, std::string *error);

// The first free port for a device of this speed in the text of vhci_hcd's status file, or port itself if it
// is free when it isn't below 0; -1 when there is none.
int usbip_free_port(const std::string &status, usb_speed_t speed, int port);
