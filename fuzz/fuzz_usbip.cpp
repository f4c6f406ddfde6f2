// What a kernel sends over USB/IP: any bytes end the session or are answered.
#include "frame_source_more.h"
#include "usbip_server.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int pair[2];
    if (size > 16384 || socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0)
        return 0;
    const timeval full = {0, 1000}; // nobody reads the answers
    setsockopt(pair[1], SOL_SOCKET, SO_SNDTIMEO, &full, sizeof full);
    if (send(pair[0], data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size)) {
        shutdown(pair[0], SHUT_WR);
        sim_config_t sim = sim_config_default(sim_camera_find("E5"));
        vcam_cfg_t cfg = vcam_config_default(sim);
        cfg.pack.assign(VCAM_SLICE_BYTES, 1);
        usbip_server_t server = {};
        server.cam = vcam_create(cfg, sim_source_live(sim));
        server.usb = {USB_SPEED_HIGH, true, {"a", "b", "c"}, 0};
        usbip_session(&server, pair[1]);
        vcam_destroy(server.cam);
    }
    close(pair[0]);
    close(pair[1]);
    return 0;
}
