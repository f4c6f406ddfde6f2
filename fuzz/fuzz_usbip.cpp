// What a kernel sends over USB/IP: any bytes end the session or are answered.
#include "frame_source_more.h"
#include "fuzz_input.h"
#include "usbip_server.h"

#include <sys/socket.h>

void fuzz(fuzz_input in)
{
    int pair[2];
    if (in.size > 16384 || socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0)
        return;
    const timeval full = {0, 1000}; // nobody reads the answers
    setsockopt(pair[1], SOL_SOCKET, SO_SNDTIMEO, &full, sizeof full);
    if (send(pair[0], in.data, in.size, MSG_NOSIGNAL) == static_cast<ssize_t>(in.size)) {
        shutdown(pair[0], SHUT_WR);
        vcam_cfg_t cfg = vcam_config_default(sim_config_default(sim_camera_find("E5")));
        cfg.pack.assign(VCAM_SLICE_BYTES, 1);
        usbip_server_t server = {};
        server.cam = vcam_create(cfg, sim_source_live(cfg.sim));
        server.usb = {USB_SPEED_HIGH, true, {"a", "b", "c"}, 0};
        usbip_session(&server, pair[1]);
        vcam_destroy(server.cam);
    }
    close(pair[0]);
    close(pair[1]);
}
