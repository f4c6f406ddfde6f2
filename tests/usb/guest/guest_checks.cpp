// The library and the tools against a virtual camera behind a real kernel's USB stack. Runs as root on a
// machine with vhci-hcd, which is what scripts/usb-guest.sh makes; every test plugs in a camera of its own.
//   TQCAM_TOOLS      folder of tqcam and tqcam-sim
//   TQCAM_RECORDINGS folder of e1.oni, s1.oni, calibrated.oni
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>

#include "support/temp_dir.h"
#include "tqcam.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start)
{
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

template <typename F> bool eventually(F condition)
{
    for (const auto start = clock_type::now(); seconds_since(start) < 60;) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

const std::string tools = getenv("TQCAM_TOOLS"), recordings = getenv("TQCAM_RECORDINGS");

struct Ran {
    int code;
    std::string text;
    bool says(const char *part) const { return text.find(part) != std::string::npos; }
};

Ran shell(const std::string &command)
{
    const int status = std::system(("(" + command + ") >output 2>&1 </dev/null").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_text("output")};
}

Ran tqcam(const std::string &arguments)
{
    return shell(tools + "/tqcam " + arguments);
}

bool on_bus(int cameras)
{
    tqcam_dev_t found[4];
    return eventually([&] { return tqcam_dev_list(found, 4) == cameras; });
}

// A camera on the bus while this stands. The program that plays it hands it to the kernel itself.
class Camera {
  public:
    explicit Camera(const std::string &options, const char *recording = "e1", const char *attach = "--attach")
    {
        const std::string command = "exec " + tools + "/tqcam-sim usb --loop 100 --play " + recordings + "/" +
                                    recording + ".oni " + attach + " " + options + " 2>>sim.log";
        pid_ = fork();
        if (pid_ == 0) {
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        EXPECT_TRUE(!*attach || on_bus(1)) << "no camera on the bus: " << read_text("sim.log");
    }
    ~Camera() { pull(); }
    Camera(const Camera &) = delete;
    Camera &operator=(const Camera &) = delete;
    void pull()
    {
        if (pid_ <= 0)
            return;
        kill(pid_, SIGINT);
        waitpid(pid_, nullptr, 0);
        pid_ = 0;
        EXPECT_TRUE(on_bus(0)) << "the camera stayed on the bus";
    }

  private:
    pid_t pid_;
};

uint64_t g_lost; // frames that the capture missed

struct Guest : ::testing::Test {
    TempDir dir;
    tqcam_dev_t *dev = nullptr;

    void SetUp() override
    {
        tqcam_init("");
        tqcam_log_cfg(getenv("TQCAM_VERBOSE") ? 1 : 7, 7, 5);
    }
    void TearDown() override
    {
        close();
        tqcam_uninit();
    }
    void open()
    {
        dev = tqcam_dev_open(nullptr);
        ASSERT_NE(dev, nullptr);
        tqcam_cap_set_callback_on_error(dev, [](tqcam_dev_t *, int code, uint64_t value) {
            if (code == TQCAM_ERR_CAP_FRAME_DISCARD)
                g_lost = value;
            return true;
        });
    }
    void close()
    {
        if (dev)
            tqcam_dev_close(dev);
        dev = nullptr;
    }
    bool set_fps(uint32_t fps)
    {
        tqcam_param_item_t item = {};
        item.param_id = TQCAM_PARAM_FPS;
        item.param_len = 4;
        std::memcpy(item.value, &fps, 4);
        return tqcam_param_batch_set(dev, &item, 1);
    }

    struct Run {
        uint32_t frames = 0;
        uint64_t lost = 0;
        double mb = 0, seconds = 0;
    };
    // Retrieves frames of a capture that was started.
    Run retrieve(uint32_t wanted)
    {
        static std::vector<uint8_t> raw(4 << 20);
        Run run;
        g_lost = 0;
        const auto start = clock_type::now();
        tqcam_frame_t frame;
        while (run.frames < wanted &&
               tqcam_cap_get_frames(dev, 1, raw.data(), static_cast<uint32_t>(raw.size()), &frame) == 1) {
            run.frames++;
            run.mb += frame.frame_info.frame_size / 1e6;
        }
        run.seconds = seconds_since(start);
        run.lost = g_lost;
        return run;
    }
    Run capture(uint32_t wanted)
    {
        if (!tqcam_cap_start(dev))
            return {};
        const Run run = retrieve(wanted);
        tqcam_cap_stop(dev);
        return run;
    }
};

TEST_F(Guest, ToolsSeeAndSetUpTheCamera)
{
    EXPECT_TRUE(tqcam("list").says("no camera found"));
    Camera camera("");
    const Ran list = tqcam("list");
    EXPECT_TRUE(list.says("high speed") && list.says("serial ") && list.says("-1  TQSIM-E1")) << list.text;
    EXPECT_TRUE(tqcam("info").says("EPC chip driver"));
    EXPECT_EQ(tqcam("reset").code, 0);
    EXPECT_EQ(tqcam("reset --target 3").code, 0);
    EXPECT_EQ(tqcam("info usb://009:001:001").code, 3);
    EXPECT_EQ(tqcam("record \"\" live.oni -n 20 --dist").code, 0);
    EXPECT_TRUE(tqcam("play live.oni --fast").says("frames of 320x240"));
    // Another user may not open it, and is told what helps. That user may not enter the build folder either.
    const std::string tool = tools + "/tqcam";
    shell("install -d -m 755 /tmp/public; cp " + tool + " $(ldd " + tool +
          " | awk '/libtqcam/ {print $3}') /tmp/public");
    const Ran other = shell("setpriv --reuid 65534 --regid 65534 --clear-groups env "
                            "LD_LIBRARY_PATH=/tmp/public /tmp/public/tqcam list");
    EXPECT_TRUE(other.says("may not open") && other.says("60-tqcam.rules")) << other.text;
    open();
    EXPECT_EQ(tqcam("play -n 1").code, 3) << "one process at a time";
    EXPECT_EQ(capture(5).frames, 5u);
}

TEST_F(Guest, StockToolAttachesAndDetaches)
{
    Camera camera("", "e1", "");
    for (int round = 0; round < 2; round++) { // the server serves on
        EXPECT_TRUE(eventually([] { return shell("usbip attach -r 127.0.0.1 -b 1-1").code == 0; }));
        ASSERT_TRUE(on_bus(1));
        EXPECT_EQ(tqcam("play -n 10").code, 0);
        EXPECT_EQ(shell("usbip detach -p 0").code, 0);
        EXPECT_TRUE(on_bus(0));
    }
}

// Milliseconds of processor that the library's event thread has used.
static double event_ms()
{
    const std::string stats = "/proc/" + std::to_string(getpid()) + "/task/*/stat";
    return std::atof(shell("awk '/LLUSBEvt/ {s += $14 + $15} END {print 10 * s}' " + stats).text.c_str());
}

TEST_F(Guest, ThreeHundredFramesWithoutLoss)
{
    for (const auto &[name, fps] : {std::pair{"e1", 30u}, {"s1", 30u}, {"e1", 60u}}) {
        Camera camera("", name);
        open();
        EXPECT_TRUE(set_fps(fps));
        capture(30); // the camera's frames are in its memory now
        Run run;
        for (int tries = 0; tries < 3 && (run.frames < 300 || run.lost > 0); tries++) {
            // a busy host takes the guest's processor away
            const double before = event_ms();
            run = capture(300);
            std::printf("figure: %s: %u frames, %.1f frames/s, %.1f MB/s, %u lost, event thread %.2f ms/MB\n",
                        name, run.frames, run.frames / run.seconds, run.mb / run.seconds,
                        static_cast<unsigned>(run.lost), (event_ms() - before) / run.mb);
        }
        EXPECT_EQ(run.frames, 300u);
        EXPECT_EQ(run.lost, 0u);
        close();
    }
}

// What a fault may cost: commands that fail, and frames.
TEST_F(Guest, GoesOnAfterEveryFault)
{
    static const struct {
        std::string options;
        int failed;
        uint64_t min_lost, max_lost;
    } cases[] = {
        {"--fault lose-packet,first=50", 0, 1, 2},
        {"--fault bit-error,first=50", 0, 0, 0}, // nothing tells
        {"--checksum --fault bit-error,first=50", 0, 1, 2},
        {"--checksum --fault bad-checksum,first=50", 0, 1, 2},
        {"--fault junk,first=50", 0, 0, 2},
        {"--fault cut-frame,first=12", 0, 1, 2},
        {"--fault pause,first=50,value=300", 0, 0, 8},
        {"--fault short-in,first=50", 0, 0, 0},
        {"--fault stall-in,first=50", 0, 0, 8},
        // Opening sets the mode and the frequency: these are for what comes afterwards.
        {"--fault stall-cmd,on=0xC003,first=20,every=1,times=1", 1, 0, 0},
        {"--fault hang-cmd,on=0xC003,first=20,every=1,times=1", 1, 0, 0},
        {"--fault short-cmd,on=0xC003,first=20,every=1,times=1", 1, 0, 0},
        {"--fault fail-cmd,on=0xC003,first=20,every=1,times=1", 1, 0, 0},
        {"--fault slow-cmd,on=0xC003,first=20,every=1,times=1", 0, 0, 0},
        {"--fault busy,on=0xC003,value=50,first=20,every=1,times=1", 0, 0, 0},
        {"--speed low --speed-after-reset high", 0, 0, 0},
        {"--speed super", 0, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.options);
        Camera camera(c.options);
        open();
        EXPECT_GE(dev->address.usb.speed, 3) << "at low speed it is reset";
        int failed = 0;
        for (uint32_t i = 0; i < 25; i++)
            failed += !set_fps(28 + i % 3);
        EXPECT_EQ(failed, c.failed);
        const Run run = capture(40);
        EXPECT_EQ(run.frames, 40u);
        EXPECT_GE(run.lost, c.min_lost);
        EXPECT_LE(run.lost, c.max_lost + 4) << "a busy host costs a few";
        close();
    }
}

TEST_F(Guest, UnplugDuringEverything)
{
    for (const char *fault : {"unplug-in,first=60", "unplug-cmd,on=0xC003,first=10"}) {
        SCOPED_TRACE(fault);
        Camera camera(std::string("--replug 500 --fault ") + fault);
        open();
        const auto start = clock_type::now();
        int works = 0;
        while (works < 30 && set_fps(20))
            works++;
        EXPECT_TRUE(works < 30 || capture(100).frames < 100);
        EXPECT_LT(seconds_since(start), 15) << "told at once, not by a time-out";
        EXPECT_FALSE(set_fps(10));
        close();
        ASSERT_TRUE(on_bus(1));
        open();
        EXPECT_EQ(capture(10).frames, 10u);
        close();
    }
    // For good, in the middle of a capture and with the device open.
    Camera camera("");
    open();
    ASSERT_TRUE(tqcam_cap_start(dev));
    EXPECT_EQ(retrieve(10).frames, 10u);
    camera.pull();
    EXPECT_LT(retrieve(100).frames, 100u);
    tqcam_cap_stop(dev);
    close();
    EXPECT_EQ(tqcam_dev_open(nullptr), nullptr);
}

TEST_F(Guest, ImagesArriveThroughEveryFault)
{
    shell("head -c 300000 /dev/urandom > image.bin");
    static const struct {
        const char *fault;
        bool works;
    } cases[] = {
        {"erase-polls,value=200", true}, {"repeat-ack,first=3", true}, {"lose-out,first=2", true},
        {"stall-out,first=2", true},     {"hang-out,first=2", true},   {"unplug-out,first=3", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault);
        unlink("image-5.bin");
        {
            Camera camera(std::string("--save . --fault ") + c.fault);
            open();
            // Type 5 is plain data: no rest of seconds behind it.
            EXPECT_EQ(tqcam_data_download(dev, "image.bin", 5, 7, 0) >= 0, c.works);
            close();
        }
        EXPECT_EQ(read_text("image-5.bin") == read_text("image.bin"), c.works);
    }
}

TEST_F(Guest, FirmwareRestartsTheCamera)
{
    shell("head -c 100000 /dev/urandom > image-0.new");
    Camera camera("--save .");
    const std::string write = "flash write \"\" image-0.new --type 0 --version 201";
    EXPECT_EQ(tqcam(write + " --yes").code, 0);
    EXPECT_TRUE(tqcam("info").says("software 201"));
    camera.pull();
    EXPECT_EQ(read_text("image-0.bin"), read_text("image-0.new"));
}

TEST_F(Guest, CalibrationTravelsBothWays)
{
    std::string file;
    {
        Camera camera("", "calibrated");
        const Ran upload = tqcam("--data fetched calib upload");
        ASSERT_EQ(upload.code, 0) << upload.text;
        file = upload.text.substr(0, upload.text.find('\n'));
    }
    // A camera without a calibration gets this one, zipped, and gives it back.
    Camera camera("");
    EXPECT_EQ(tqcam("calib download \"\" " + file + " --yes").code, 0);
    const Ran back = tqcam("--data back calib upload");
    ASSERT_EQ(back.code, 0) << back.text;
    EXPECT_EQ(read_text(back.text.substr(0, back.text.find('\n'))), read_text(file));
    EXPECT_EQ(tqcam("flash erase \"\" --yes").code, 0);
    EXPECT_EQ(tqcam("--data empty calib upload").code, 1);
}

TEST_F(Guest, OpenAndCloseLeaveNothing)
{
    Camera camera("");
    open();
    capture(3);
    const auto before = std::clock();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const double share = static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC / 5;
    std::printf("figure: idle open device: %.2f %% of a processor\n", share * 100);
    EXPECT_LT(share, 0.02);
    close();
    const std::string pid = std::to_string(getpid());
    // Descriptors, threads and resident pages.
    const std::string count = "ls /proc/" + pid + "/fd | wc -l; ls /proc/" + pid + "/task | wc -l; ";
    const auto pages = [&] { return std::stol(shell("cut -d' ' -f2 /proc/" + pid + "/statm").text); };
    std::string held;
    long memory = 0;
    for (int i = 0; i < 220; i++) {
        if (i == 20) { // what grows once, such as the heap, has grown
            held = shell(count).text;
            memory = pages();
        }
        open();
        close();
    }
    EXPECT_EQ(shell(count).text, held);
    EXPECT_LT(pages(), memory + 256);
}

} // namespace
