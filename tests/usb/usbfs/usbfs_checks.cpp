// The library on libusb's own Linux backend: umockdev puts a camera's folder in /sys and its node in /dev
// before this process, and what libusb asks of the node goes to the virtual camera. No kernel takes part.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <thread>
#include <umockdev.h>

#include "frame_source_more.h"
#include "tqcam.h"
#include "usb_descriptors.h"

namespace {

uint64_t now_us()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

// The kernel's side of the node. All calls come on one thread of umockdev's.
struct Usbfs {
    vcam_t *cam;
    usb_device_t usb = {USB_SPEED_HIGH, true, {"TQSIM", "TQSIM-E1", "4711"}, 1};
    std::deque<usbdevfs_urb *> ring, done; // bulk IN in flight; to be reaped
    int claimed = 0;

    void end(usbdevfs_urb *urb, vcam_result_t result, uint32_t actual)
    {
        urb->status = result == VCAM_OK ? 0 : result == VCAM_GONE ? -ESHUTDOWN : -EPIPE;
        urb->actual_length = static_cast<int>(actual);
        done.push_back(urb);
    }
    int submit(usbdevfs_urb *urb)
    {
        auto *bytes = static_cast<uint8_t *>(urb->buffer);
        if (vcam_plug_state(cam) != VCAM_PLUGGED)
            return ENODEV;
        if (urb->type == USBDEVFS_URB_TYPE_BULK && urb->endpoint == USB_EP_IN) {
            urb->actual_length = 0;
            ring.push_back(urb);
        } else if (urb->type == USBDEVFS_URB_TYPE_BULK) {
            const auto length = static_cast<uint32_t>(urb->buffer_length);
            const vcam_reply_t reply = vcam_bulk_out(cam, bytes, length, now_us());
            end(urb, reply.result, reply.actual);
        } else {
            const bool standard = (bytes[0] & 0x60) == 0;
            const vcam_reply_t reply = standard ? usb_standard_request(&usb, cam, bytes, bytes + 8)
                                                : vcam_control(cam, bytes, bytes + 8, now_us());
            end(urb, reply.result, reply.actual);
        }
        return 0;
    }
    void pump()
    {
        while (!ring.empty()) {
            usbdevfs_urb *urb = ring.front();
            const auto got = static_cast<uint32_t>(urb->actual_length);
            const vcam_reply_t reply =
                vcam_bulk_in(cam, static_cast<uint8_t *>(urb->buffer) + got,
                             static_cast<uint32_t>(urb->buffer_length) - got, now_us());
            urb->actual_length += static_cast<int>(reply.result == VCAM_GONE ? 0 : reply.actual);
            if (reply.result == VCAM_NOT_YET || reply.result == VCAM_MORE)
                return;
            ring.pop_front();
            end(urb, reply.result, static_cast<uint32_t>(urb->actual_length));
        }
    }
    int reap(usbdevfs_urb **out)
    {
        pump();
        if (done.empty()) {
            // The node looks readable at all times, so that libusb asks again at once.
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            return vcam_plug_state(cam) == VCAM_PLUGGED ? EAGAIN : ENODEV;
        }
        *out = done.front();
        done.pop_front();
        return 0;
    }
    int discard(usbdevfs_urb *urb)
    {
        if (std::erase(ring, urb) == 0)
            return EINVAL;
        urb->status = -ENOENT;
        done.push_back(urb);
        return 0;
    }
    int ioctl(unsigned long request, void *arg)
    {
        switch (request) {
        case USBDEVFS_GET_CAPABILITIES:
            *static_cast<uint32_t *>(arg) = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                            USBDEVFS_CAP_BULK_SCATTER_GATHER |
                                            USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
            return 0;
        case USBDEVFS_CLAIMINTERFACE:
        case USBDEVFS_DISCONNECT_CLAIM:
            claimed++;
            return 0;
        case USBDEVFS_RELEASEINTERFACE:
            claimed--;
            return 0;
        case USBDEVFS_CLEAR_HALT:
            vcam_clear_halt(cam, *static_cast<unsigned *>(arg) == USB_EP_IN);
            return 0;
        case USBDEVFS_SUBMITURB:
            return submit(static_cast<usbdevfs_urb *>(arg));
        case USBDEVFS_REAPURBNDELAY:
            return reap(static_cast<usbdevfs_urb **>(arg));
        case USBDEVFS_DISCARDURB:
            return discard(static_cast<usbdevfs_urb *>(arg));
        default:
            return ENOTTY;
        }
    }
};

gboolean on_ioctl(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer usbfs)
{
    UMockdevIoctlData *data = umockdev_ioctl_client_get_arg(client);
    guint8 *bytes = nullptr;
    gint size = 0;
    umockdev_ioctl_data_retrieve(data, &bytes, &size);
    void *arg = nullptr; // library and handler are in one process: it may be followed
    std::memcpy(&arg, bytes, std::min<size_t>(static_cast<size_t>(size), sizeof arg));
    const int error = static_cast<Usbfs *>(usbfs)->ioctl(umockdev_ioctl_client_get_request(client), arg);
    umockdev_ioctl_client_complete(client, error == 0 ? 0 : -1, error);
    g_free(bytes);
    return TRUE;
}

// The folder of a device as the kernel shows it, in the form of umockdev-record.
std::string record_of(Usbfs *usbfs)
{
    std::vector<uint8_t> descriptors = usb_device_descriptor(usbfs->usb.speed);
    const std::vector<uint8_t> config = usb_config_descriptor(usbfs->usb.speed, usbfs->usb.decoy);
    descriptors.insert(descriptors.end(), config.begin(), config.end());
    std::string hex;
    for (const uint8_t byte : descriptors)
        for (const int digit : {byte >> 4, byte & 15})
            hex += "0123456789ABCDEF"[digit];
    return "P: /devices/usb1/1-2\nN: bus/usb/001/003\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n"
           "E: DEVNAME=/dev/bus/usb/001/003\nE: BUSNUM=001\nE: DEVNUM=003\nA: busnum=1\nA: devnum=3\n"
           "A: speed=480\nA: bConfigurationValue=1\nH: descriptors=" +
           hex + "\n";
}

TEST(Usbfs, CameraFromListToUnplug)
{
    Usbfs usbfs = {};
    vcam_cfg_t cfg = vcam_config_default(sim_config_default(sim_camera_find("E1")));
    usbfs.cam = vcam_create(cfg, sim_source_live(cfg.sim));
    UMockdevTestbed *testbed = umockdev_testbed_new();
    ASSERT_TRUE(umockdev_testbed_add_from_string(testbed, record_of(&usbfs).c_str(), nullptr));
    UMockdevIoctlBase *handler = umockdev_ioctl_base_new();
    g_signal_connect(handler, "handle-ioctl", G_CALLBACK(on_ioctl), &usbfs);
    ASSERT_TRUE(umockdev_testbed_attach_ioctl(testbed, "/dev/bus/usb/001/003", handler, nullptr));

    tqcam_init("");
    tqcam_dev_t found[2] = {};
    ASSERT_EQ(tqcam_dev_list(found, 2), 1);
    EXPECT_EQ(found[0].address.usb.bus, 1);
    EXPECT_EQ(found[0].address.usb.port, 2);
    EXPECT_EQ(found[0].address.usb.addr, 3);
    EXPECT_EQ(found[0].address.usb.speed, 3);
    EXPECT_STREQ(found[0].address.usb.product, "TQSIM-E1");
    EXPECT_STREQ(found[0].address.usb.vendor, "TQSIM");
    tqcam_dev_t *dev = tqcam_dev_open(nullptr);
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(usbfs.claimed, 1);

    tqcam_param_item_t fps = {};
    fps.param_id = TQCAM_PARAM_FPS;
    fps.param_len = 4;
    fps.value[0] = 27;
    EXPECT_TRUE(tqcam_param_batch_set(dev, &fps, 1));
    fps.value[0] = 0;
    EXPECT_TRUE(tqcam_param_batch_get(dev, &fps, 1));
    EXPECT_EQ(fps.value[0], 27);

    std::vector<uint8_t> raw(4 << 20);
    tqcam_frame_t frame;
    const auto retrieve = [&] {
        return tqcam_cap_get_frames(dev, 1, raw.data(), static_cast<uint32_t>(raw.size()), &frame);
    };
    for (int run = 0; run < 2; run++) { // the second begins where a stop cancelled the ring
        ASSERT_TRUE(tqcam_cap_start(dev));
        for (int i = 0; i < 5; i++) {
            ASSERT_EQ(retrieve(), 1);
            EXPECT_EQ(frame.frame_info.width, 320u);
            EXPECT_EQ(frame.frame_info.height, 240u);
        }
        EXPECT_TRUE(tqcam_cap_stop(dev));
    }

    ASSERT_TRUE(tqcam_cap_start(dev));
    EXPECT_EQ(retrieve(), 1);
    vcam_pull_out(usbfs.cam);
    int more = 0;
    while (more < 30 && retrieve() == 1)
        more++;
    EXPECT_LT(more, 30);
    EXPECT_FALSE(tqcam_param_batch_set(dev, &fps, 1));
    tqcam_dev_close(dev);
    EXPECT_EQ(usbfs.claimed, 0);
    umockdev_testbed_remove_device(testbed, "/sys/devices/usb1/1-2");
    EXPECT_EQ(tqcam_dev_list(found, 2), 0);
    tqcam_uninit();
    g_object_unref(handler);
    g_object_unref(testbed);
    vcam_destroy(usbfs.cam);
}

} // namespace
