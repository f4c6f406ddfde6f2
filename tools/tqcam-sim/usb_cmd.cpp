#include "commands.h"
#include "frame_source_more.h"
#include "progress.h"
#include "usbip_server.h"

#include <chrono>
#include <cstdio>
#include <thread>
#include <unistd.h>

void usb_add(CLI::App &app, UsbOptions &options)
{
    CLI::App *usb = app.add_subcommand("usb", "serve the camera as a USB device to a Linux kernel");
    usb->footer([] {
        return "Without --attach, on the machine that is to have the camera, as root:\n"
               "  modprobe vhci-hcd && usbip attach -r HOST -b 1-1\n"
               "\nFaults: --fault NAME[,first=N][,every=N][,times=N][,value=N][,on=0xTTVV]; by default once, "
               "at the\n"
               "first opportunity; with every and no times without end; on: only commands of type TT, value "
               "VV.\n" +
               vcam_fault_help();
    });
    usb->add_option("--listen", options.host, "address to listen at")->capture_default_str();
    usb->add_option("--port", options.port, "TCP port to listen at")->capture_default_str();
    usb->add_flag("--attach", options.attach, "hand the camera to this machine's kernel (root, vhci-hcd)");
    const auto speeds = CLI::IsMember({"low", "full", "high", "super"});
    usb->add_option("--speed", options.speed, "speed of the bus")->check(speeds)->capture_default_str();
    usb->add_option("--speed-after-reset", options.speed_after_reset, "speed after a reset of the interface")
        ->check(speeds)
        ->capture_default_str();
    usb->add_option("--replug", options.replug_ms,
                    "ms after which a pulled camera is plugged in again; 0: never")
        ->capture_default_str();
    usb->add_option("--play", options.play, "stream a recording instead of the scene")
        ->check(CLI::ExistingFile);
    usb->add_option("--loop", options.loop, "make this many frames and stream them over and over")
        ->check(CLI::Range(1u, 10000u));
    usb->add_option("--packet", options.packet, "payload of a stream packet, bytes")
        ->check(CLI::Range(64u, 10485759u))
        ->capture_default_str();
    usb->add_flag("--checksum", options.checksum, "packets carry a checksum of their payload");
    usb->add_flag("--decoy", options.decoy, "put an interface of another kind before the camera's");
    usb->add_option("--fault", options.faults, "what goes wrong, see below; may be given several times");
    usb->add_option("--save", options.save,
                    "folder for the images that were written into the camera, at the end")
        ->check(CLI::ExistingDirectory);
    options.camera.add(*usb);
    usb->callback([&options] { usb_run(options); });
}

namespace {

void _tell(const char *line)
{
    std::fprintf(stderr, "tqcam-sim: %s\n", line);
}

// What was written into the camera, as files.
void _save_images(vcam_t *cam, const std::string &folder)
{
    for (uint32_t type = 0; type < 256; type++) {
        const std::vector<uint8_t> image = vcam_image(cam, static_cast<uint8_t>(type));
        if (image.empty())
            continue;
        const std::string name = folder + "/image-" + std::to_string(type) + ".bin";
        FILE *file = std::fopen(name.c_str(), "wb");
        const bool ok = file != nullptr && std::fwrite(image.data(), 1, image.size(), file) == image.size();
        if (file == nullptr || std::fclose(file) != 0 || !ok)
            throw SimError{EXIT_FAILED, "can't write " + name};
    }
}

// Ctrl-C reaches the server, which has a loop of its own; every few seconds people see that frames flow.
void _watch(usbip_server_t *server)
{
    vcam_stats_t last = {};
    for (int tenths = 0; !server->stop.load(); tenths++) {
        if (interrupted())
            server->stop = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const vcam_stats_t now = vcam_stats(server->cam);
        if (tenths % 50 == 49 && now.frames != last.frames && isatty(STDERR_FILENO) != 0) {
            const double mib = static_cast<double>(now.bytes - last.bytes) / 1048576;
            std::fprintf(stderr, "tqcam-sim: %.1f frames/s, %.1f MiB/s, %llu skipped\n",
                         static_cast<double>(now.frames - last.frames) / 5, mib / 5,
                         static_cast<unsigned long long>(now.frames_skipped));
        }
        if (tenths % 50 == 49)
            last = now;
    }
}

} // namespace

void usb_run(const UsbOptions &options)
{
    std::string error;
    sim_source_ptr_t source;
    std::vector<uint8_t> calib = options.camera.calib_bytes();
    sim_config_t sim;
    if (options.play.empty()) {
        sim = options.camera.config();
        source = sim_source_live(sim);
    } else {
        sim_recording_t recording;
        source = sim_source_recording(options.play.c_str(), &recording, &error);
        if (source == nullptr)
            throw SimError{EXIT_FAILED, error};
        sim = recording.cfg;
        sim.seed = options.camera.seed;
        if (calib.empty())
            calib = recording.calib;
    }
    source = sim_source_ahead(std::move(source), 3);
    if (options.loop != 0)
        source = sim_source_loop(std::move(source), sim, options.loop);

    vcam_cfg_t cfg = vcam_config_default(sim);
    cfg.packet_bytes = options.packet;
    cfg.checksum = options.checksum;
    if (!calib.empty())
        cfg.pack = vcam_pack_of_file(sim_identity(sim), calib);
    for (const std::string &fault : options.faults)
        if (!vcam_fault_parse(&cfg.faults, fault, &error))
            throw SimError{EXIT_USAGE, error};

    const sim_identity_t id = sim_identity(sim);
    char serial[16];
    std::snprintf(serial, sizeof serial, "%08X", id.serial[0]);
    usbip_server_t server = {};
    const std::unique_ptr<vcam_t, void (*)(vcam_t *)> cam(vcam_create(cfg, std::move(source)), vcam_destroy);
    server.cam = cam.get();
    server.usb = {static_cast<usb_speed_t>(usb_speed_of(options.speed)),
                  options.decoy,
                  {SIM_VENDOR, sim.camera->product, serial},
                  0};
    server.speed_after_reset = static_cast<usb_speed_t>(usb_speed_of(options.speed_after_reset));
    server.replug_ms = options.replug_ms;
    server.tell = _tell;

    const int listener = options.attach ? -1 : usbip_listen(options.host.c_str(), options.port, &error);
    if (!options.attach && listener < 0)
        throw SimError{EXIT_FAILED, error};
    std::thread watch(_watch, &server);
    bool ok = true;
    if (options.attach) {
        ok = usbip_attach_local(&server, &error);
    } else {
        std::fprintf(stderr, "tqcam-sim: %s at %s port %u, bus id 1-1; Ctrl-C ends\n", sim.camera->product,
                     options.host.c_str(), options.port);
        usbip_serve(&server, listener);
        close(listener);
    }
    server.stop = true;
    watch.join();
    if (!options.save.empty())
        _save_images(cam.get(), options.save);
    if (!ok)
        throw SimError{EXIT_FAILED, error};
}
