// The library and the tools against a virtual camera behind a real kernel's USB stack. Runs as root on a
// machine with vhci-hcd, which is what scripts/usb-guest.sh makes; every test plugs in a camera of its own.
//   TQCAM_TOOLS      folder of tqcam and tqcam-sim
//   TQCAM_RECORDINGS folder of e1.oni, s1.oni, calibrated.oni
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support/temp_dir.h"
#include "tqcam.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start)
{
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

template <typename F> bool eventually(F condition, double seconds = 60)
{
    for (const auto start = clock_type::now(); seconds_since(start) < seconds;) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

std::string env(const char *name)
{
    const char *value = getenv(name);
    return value ? value : "";
}

struct Ran {
    int code;
    std::string text;
};

Ran shell(const std::string &command)
{
    Ran ran = {-1, ""};
    FILE *pipe = popen((command + " 2>&1 </dev/null").c_str(), "r");
    char block[4096];
    for (size_t n; pipe && (n = fread(block, 1, sizeof block, pipe)) > 0;)
        ran.text.append(block, n);
    const int status = pipe ? pclose(pipe) : -1;
    ran.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return ran;
}

Ran tqcam(const std::string &arguments)
{
    return shell(env("TQCAM_TOOLS") + "/tqcam " + arguments);
}

int devices_on_bus()
{
    tqcam_dev_t found[4];
    return tqcam_dev_list(found, 4);
}

// A camera on the bus while this stands. The program that plays it hands it to the kernel itself, unless the
// stock tool shall do that.
class Camera {
  public:
    explicit Camera(const std::string &options, const std::string &recording = "e1", bool stock_tool = false)
    {
        const std::string play =
            recording.empty() ? ""
                              : " --loop 100 --play " + env("TQCAM_RECORDINGS") + "/" + recording + ".oni";
        std::vector<std::string> words = {env("TQCAM_TOOLS") + "/tqcam-sim"};
        std::istringstream in((stock_tool ? "usb" : "usb --attach") + play + " " + options);
        for (std::string word; in >> word;)
            words.push_back(word);
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            if (!freopen("sim.log", "a", stderr))
                _exit(126);
            execv(argv[0], argv.data());
            _exit(127);
        }
        if (stock_tool) {
            EXPECT_TRUE(eventually([] { return shell("usbip attach -r 127.0.0.1 -b 1-1").code == 0; }));
        }
        EXPECT_TRUE(eventually([] { return devices_on_bus() == 1; }))
            << "no camera on the bus: " << shell("cat sim.log").text;
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
        EXPECT_TRUE(eventually([] { return devices_on_bus() == 0; })) << "the camera stayed on the bus";
    }

  private:
    pid_t pid_;
};

uint64_t g_lost;

struct Guest : ::testing::Test {
    TempDir dir;
    tqcam_dev_t *dev = nullptr;

    void SetUp() override
    {
        tqcam_init("");
        tqcam_log_cfg(env("TQCAM_VERBOSE").empty() ? 7 : 1, 7, 5);
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
        tqcam_cap_cfg_t cfg;
        tqcam_cap_config_get(dev, &cfg);
        cfg.on_cap_err = [](tqcam_dev_t *, int code, uint64_t value) {
            if (code == TQCAM_ERR_CAP_FRAME_DISCARD)
                g_lost = value;
            return true;
        };
        tqcam_cap_config_set(dev, &cfg);
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
    uint32_t get_u32(uint32_t id)
    {
        tqcam_param_item_t item = {};
        item.param_id = id;
        item.param_len = 4;
        uint32_t value = 0;
        if (tqcam_param_batch_get(dev, &item, 1))
            std::memcpy(&value, item.value, 4);
        return value;
    }

    struct Run {
        uint32_t frames = 0;
        uint64_t lost = 0, bytes = 0;
        int result = 0;
        double seconds = 0;
    };
    // Retrieves frames of a capture that was started.
    Run retrieve(uint32_t wanted)
    {
        static std::vector<uint8_t> raw(4 << 20);
        Run run;
        g_lost = 0;
        const auto start = clock_type::now();
        while (run.frames < wanted) {
            tqcam_frame_t frame;
            run.result = tqcam_cap_get_frames(dev, 1, raw.data(), static_cast<uint32_t>(raw.size()), &frame);
            if (run.result != 1)
                break;
            run.frames++;
            run.bytes += frame.frame_info.frame_size;
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

// Milliseconds of processor that the library's event thread has used.
double event_thread_ms()
{
    double ms = 0;
    DIR *tasks = opendir("/proc/self/task");
    while (const dirent *task = tasks ? readdir(tasks) : nullptr) {
        std::ifstream file(std::string("/proc/self/task/") + task->d_name + "/stat");
        std::string line;
        std::getline(file, line);
        if (line.find("(LLUSBEvtLoop)") == std::string::npos)
            continue;
        std::istringstream fields(line.substr(line.rfind(')') + 2));
        std::vector<std::string> field;
        for (std::string word; fields >> word;)
            field.push_back(word);
        ms +=
            (std::stod(field[11]) + std::stod(field[12])) * 1000 / static_cast<double>(sysconf(_SC_CLK_TCK));
    }
    if (tasks)
        closedir(tasks);
    return ms;
}

double process_ms()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    const auto ms = [](const timeval &t) { return static_cast<double>(t.tv_sec) * 1e3 + t.tv_usec / 1e3; };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

int entries(const char *folder)
{
    int count = 0;
    DIR *d = opendir(folder);
    while (d && readdir(d))
        count++;
    if (d)
        closedir(d);
    return count;
}

long resident_kib()
{
    std::ifstream file("/proc/self/statm");
    long size = 0, resident = 0;
    file >> size >> resident;
    return resident * sysconf(_SC_PAGESIZE) / 1024;
}

TEST_F(Guest, ToolsSeeAndSetUpTheCamera)
{
    EXPECT_NE(tqcam("list").text.find("no camera found"), std::string::npos);
    EXPECT_EQ(tqcam("info").code, 3);
    Camera camera("");
    const Ran list = tqcam("list");
    EXPECT_NE(list.text.find("high speed"), std::string::npos) << list.text;
    EXPECT_NE(list.text.find("serial "), std::string::npos) << list.text;
    EXPECT_NE(list.text.find("-1  TQSIM-E1"), std::string::npos) << list.text; // bus path
    const Ran info = tqcam("info");
    EXPECT_EQ(info.code, 0);
    EXPECT_NE(info.text.find("EPC chip driver"), std::string::npos) << info.text;
    EXPECT_EQ(tqcam("reset").code, 0);
    EXPECT_EQ(tqcam("reset --target 3").code, 0);
    EXPECT_EQ(tqcam("info usb://009:001:001").code, 3);
    // Another user may not open it, and is told what helps. That user may not enter the build folder either.
    const std::string tool = env("TQCAM_TOOLS") + "/tqcam";
    shell("install -d -m 755 /tmp/public; cp " + tool + " $(ldd " + tool +
          " | awk '/libtqcam/ {print $3}') /tmp/public");
    const Ran other = shell("setpriv --reuid 65534 --regid 65534 --clear-groups env "
                            "LD_LIBRARY_PATH=/tmp/public /tmp/public/tqcam list");
    EXPECT_NE(other.text.find("may not open"), std::string::npos) << other.text;
    EXPECT_NE(other.text.find("60-tqcam.rules"), std::string::npos) << other.text;
}

TEST_F(Guest, StockToolAttachesAndDetaches)
{
    Camera camera("", "e1", true);
    EXPECT_EQ(tqcam("play -n 10").code, 0);
    EXPECT_EQ(shell("usbip detach -p 0").code, 0);
    EXPECT_TRUE(eventually([] { return devices_on_bus() == 0; }));
    EXPECT_EQ(shell("usbip attach -r 127.0.0.1 -b 1-1").code, 0) << "the server serves on";
    EXPECT_TRUE(eventually([] { return tqcam("play -n 10").code == 0; }));
}

TEST_F(Guest, ThreeHundredFramesWithoutLoss)
{
    for (const char *name : {"e1", "s1"}) {
        Camera camera("", name);
        open();
        capture(30); // the camera's frames are in its memory now
        Run run;
        double event_ms = 0;
        for (int tries = 0; tries < 3; tries++) { // a busy host takes the guest's processor away
            event_ms = event_thread_ms();
            run = capture(300);
            event_ms = event_thread_ms() - event_ms;
            if (run.frames == 300 && run.lost == 0)
                break;
            std::printf("figure: %s at 30/s, try %d: %u frames, %llu lost\n", name, tries + 1, run.frames,
                        static_cast<unsigned long long>(run.lost));
        }
        EXPECT_EQ(run.frames, 300u);
        EXPECT_EQ(run.lost, 0u);
        const double mb = static_cast<double>(run.bytes) / 1e6;
        std::printf("figure: %s: %u frames in %.1f s, %.1f frames/s, %.1f MB/s, %llu lost, "
                    "event thread %.2f ms/MB\n",
                    name, run.frames, run.seconds, run.frames / run.seconds, mb / run.seconds,
                    static_cast<unsigned long long>(run.lost), event_ms / mb);
        if (set_fps(60)) {
            run = capture(300);
            std::printf("figure: %s at 60/s: %.1f frames/s, %.1f MB/s, %llu lost\n", name,
                        run.frames / run.seconds, static_cast<double>(run.bytes) / 1e6 / run.seconds,
                        static_cast<unsigned long long>(run.lost));
        }
        close();
    }
}

// What a fault in the stream may cost: frames, and for how long.
TEST_F(Guest, StreamGoesOnAfterEveryFault)
{
    static const struct {
        const char *options;
        uint64_t min_lost, max_lost;
    } cases[] = {
        {"--fault lose-packet,first=50", 1, 2},
        {"--fault bad-hash,first=50", 1, 2},
        {"--fault bit-error,first=50", 0, 0}, // nothing tells
        {"--checksum --fault bit-error,first=50", 1, 2},
        {"--checksum --fault bad-checksum,first=50", 1, 2},
        {"--fault junk,first=50", 0, 2},
        {"--fault cut-frame,first=12", 1, 2},
        {"--fault pause,first=50,value=300", 0, 8},
        {"--fault short-in,first=50", 0, 0},
        {"--fault empty-in,first=50", 0, 0},
        {"--fault stall-in,first=50", 0, 8},
        {"--fault late-in,first=50", 0, 8},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.options);
        Camera camera(c.options);
        open();
        const Run run = capture(40);
        EXPECT_EQ(run.frames, 40u);
        EXPECT_GE(run.lost, c.min_lost);
        EXPECT_LE(run.lost, c.max_lost + 4) << "a busy host costs a few";
        std::printf("figure: %s: %llu lost\n", c.options, static_cast<unsigned long long>(run.lost));
        EXPECT_EQ(capture(5).frames, 5u);
        close();
    }
}

TEST_F(Guest, CommandsSayWhatTheCameraSays)
{
    static const struct {
        const char *fault;
        bool works;
    } cases[] = {
        {"stall-cmd,on=0xC003", false},
        {"hang-cmd,on=0xC003", false},
        {"short-cmd,on=0xC003", false},
        {"slow-cmd,on=0xC003", true},
        {"fail-cmd,on=0xC003", false},
        {"busy,on=0xC003,value=50", true},
        {"busy,on=0xC003", true},
        {"fail-cmd,on=0xC204", true /* start of a capture, looked at below */},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault);
        const bool start = std::strstr(c.fault, "0xC204");
        // Opening sets the mode and the frequency: the fault is for what comes afterwards.
        Camera camera(std::string("--fault ") + c.fault + (start ? "" : ",first=20,every=1,times=1"));
        open();
        if (start) {
            EXPECT_FALSE(tqcam_cap_start(dev));
        } else {
            int failed = 0;
            for (uint32_t i = 0; i < 25; i++) {
                const bool ok = set_fps(20 + i % 3);
                failed += !ok;
                if (ok) {
                    EXPECT_EQ(get_u32(TQCAM_PARAM_FPS), 20 + i % 3);
                }
            }
            EXPECT_EQ(failed, c.works ? 0 : 1);
        }
        EXPECT_EQ(capture(5).frames, 5u) << "the camera works on";
        close();
    }
}

TEST_F(Guest, LowSpeedAtFirstIsReset)
{
    for (const char *speed : {"low", "full"}) {
        Camera camera(std::string("--speed ") + speed + " --speed-after-reset high");
        open();
        EXPECT_EQ(dev->address.usb.speed, 3);
        EXPECT_EQ(capture(5).frames, 5u);
        close();
    }
    Camera camera("--speed super");
    open();
    EXPECT_EQ(capture(5).frames, 5u);
}

TEST_F(Guest, UnplugDuringEverything)
{
    {
        Camera camera("--fault unplug-in,first=60 --replug 500");
        open();
        const auto start = clock_type::now();
        const Run run = capture(100);
        EXPECT_LT(run.frames, 100u);
        EXPECT_LT(seconds_since(start), 10) << "told at once, not by a time-out";
        EXPECT_FALSE(set_fps(10));
        EXPECT_FALSE(tqcam_cap_start(dev));
        close();
        ASSERT_TRUE(eventually([] { return devices_on_bus() == 1; }));
        open();
        EXPECT_EQ(capture(10).frames, 10u);
        close();
    }
    {
        Camera camera("--fault unplug-cmd,on=0xC003,first=10 --replug 500");
        open();
        const auto start = clock_type::now();
        int works = 0;
        while (works < 30 && set_fps(20))
            works++;
        EXPECT_LT(works, 30);
        EXPECT_LT(seconds_since(start), 5);
        close();
        ASSERT_TRUE(eventually([] { return devices_on_bus() == 1; }));
        open();
        EXPECT_TRUE(set_fps(20));
        close();
    }
    { // for good, in the middle of a capture and with the device open
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
}

void make_image(const std::string &name, size_t bytes)
{
    std::string content(bytes, '\0');
    for (size_t i = 0; i < bytes; i++)
        content[i] = static_cast<char>(i * 2654435761u >> 24);
    std::ofstream(name, std::ios::binary) << content;
}

std::string content_of(const std::string &name)
{
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(Guest, ImagesArriveThroughEveryFault)
{
    constexpr uint16_t type = 5; // plain data: no rest of seconds behind it
    make_image("image.bin", 300000);
    static const struct {
        const char *fault;
        bool works;
    } cases[] = {
        {"", true},
        {"--fault erase-polls,value=200", true},
        {"--fault repeat-ack,first=3", true},
        {"--fault lose-out,first=2", true},
        {"--fault stall-out,first=2", true},
        {"--fault hang-out,first=2", true},
        {"--fault unplug-out,first=3", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault);
        unlink("image-5.bin");
        {
            Camera camera(std::string("--save . ") + c.fault);
            open();
            const auto start = clock_type::now();
            EXPECT_EQ(tqcam_data_download(dev, "image.bin", type, 7, 0) >= 0, c.works);
            std::printf("figure: 300000 bytes written in %.2f s %s\n", seconds_since(start), c.fault);
            if (c.works) {
                EXPECT_LT(tqcam_data_download(dev, "image.bin", type, 7, 0), 0) << "the same version";
            }
            close();
        }
        EXPECT_EQ(content_of("image-5.bin") == content_of("image.bin"), c.works);
    }
}

TEST_F(Guest, FirmwareRestartsTheCamera)
{
    make_image("firmware.bin", 100000);
    Camera camera("--save .");
    EXPECT_EQ(tqcam("flash write \"\" firmware.bin --type 0 --version 201").code, 2) << "nobody to ask";
    const Ran write = tqcam("flash write \"\" firmware.bin --type 0 --version 201 --yes");
    EXPECT_EQ(write.code, 0) << write.text;
    const Ran info = tqcam("info");
    EXPECT_NE(info.text.find("software 201"), std::string::npos) << info.text;
    EXPECT_EQ(tqcam("flash write \"\" firmware.bin --type 0 --version 201 --yes").code, 1);
    EXPECT_EQ(tqcam("flash read \"\" back.bin --type 0").code, 0);
    EXPECT_EQ(content_of("back.bin").size(), 100000u);
    camera.pull();
    EXPECT_EQ(content_of("image-0.bin"), content_of("firmware.bin"));
}

TEST_F(Guest, CalibrationTravelsBothWays)
{
    std::string file, calibration;
    {
        Camera camera("", "calibrated");
        const Ran upload = tqcam("--data fetched calib upload");
        ASSERT_EQ(upload.code, 0) << upload.text;
        file = upload.text.substr(0, upload.text.find('\n'));
        calibration = content_of(file);
        EXPECT_GT(calibration.size(), 100000u);
        EXPECT_EQ(tqcam("calib check " + file).code, 0);
        EXPECT_NE(tqcam("--data fetched info").text.find("Calibration    12"), std::string::npos);
    }
    // A camera without a calibration gets this one, zipped, and gives it back.
    Camera camera("");
    EXPECT_EQ(tqcam("--data empty calib upload").code, 1);
    const Ran pack = tqcam("calib pack \"\" " + file);
    EXPECT_EQ(pack.code, 0) << pack.text;
    EXPECT_NE(pack.text.find("tcm_ex_encode_rel_W"), std::string::npos);
    const Ran download = tqcam("calib download \"\" " + file + " --yes");
    ASSERT_EQ(download.code, 0) << download.text;
    const Ran back = tqcam("--data back calib upload");
    ASSERT_EQ(back.code, 0) << back.text;
    EXPECT_EQ(content_of(back.text.substr(0, back.text.find('\n'))), calibration);
    EXPECT_EQ(tqcam("flash erase \"\" --yes").code, 0);
    EXPECT_EQ(tqcam("--data empty calib upload").code, 1);
}

TEST_F(Guest, RecordsWhatItPlays)
{
    Camera camera("");
    const Ran record = tqcam("record \"\" live.oni -n 20 --dist");
    EXPECT_EQ(record.code, 0) << record.text;
    const Ran play = tqcam("play live.oni --fast");
    EXPECT_EQ(play.code, 0);
    EXPECT_NE(play.text.find("frames of 320x240"), std::string::npos) << play.text;
}

TEST_F(Guest, OneProcessAtATime)
{
    Camera camera("");
    open();
    const Ran second = tqcam("play -n 1");
    EXPECT_EQ(second.code, 3) << second.text;
    EXPECT_EQ(capture(5).frames, 5u);
}

TEST_F(Guest, OpenAndCloseLeaveNothing)
{
    Camera camera("");
    open();
    capture(3);
    const double before = process_ms();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const double share = (process_ms() - before) / 5000;
    std::printf("figure: idle open device: %.2f %% of a processor\n", share * 100);
    EXPECT_LT(share, 0.02);
    close();
    const auto count = [](int times) {
        for (int i = 0; i < times; i++) {
            tqcam_dev_t *opened = tqcam_dev_open(nullptr);
            EXPECT_NE(opened, nullptr);
            if (opened)
                tqcam_dev_close(opened);
        }
    };
    count(20); // what grows once, such as the heap, has grown
    const int files = entries("/proc/self/fd"), threads = entries("/proc/self/task");
    const long memory = resident_kib();
    const auto start = clock_type::now();
    count(200);
    std::printf(
        "figure: 200 times open and close in %.1f s: descriptors %d, %d; threads %d, %d; resident %ld, "
        "%ld KiB\n",
        seconds_since(start), files, entries("/proc/self/fd"), threads, entries("/proc/self/task"), memory,
        resident_kib());
    EXPECT_EQ(entries("/proc/self/fd"), files);
    EXPECT_EQ(entries("/proc/self/task"), threads);
    EXPECT_LT(resident_kib(), memory + 1024);
}

} // namespace
