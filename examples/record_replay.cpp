// Records frames of a running device into a file, then opens that file as a camera and counts what it gives.
//
//   example_record_replay scene.oni copy.oni [frames]
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "tqcam.h"

static int take(tqcam_dev_t *dev, int wanted)
{
    std::vector<unsigned char> raw(8u << 20);
    int got = 0;
    while (got < wanted &&
           tqcam_cap_get_frames(dev, 1, raw.data(), static_cast<uint32_t>(raw.size()), nullptr) == 1)
        got++;
    return got;
}

int main(int argc, char **argv)
{
    const char *source = argc > 1 ? argv[1] : "scene.oni";
    char *file = argc > 2 ? argv[2] : const_cast<char *>("copy.oni");
    const int wanted = argc > 3 ? std::atoi(argv[3]) : 5;
    tqcam_init("");
    tqcam_dev_t *dev = tqcam_dev_open_by_uri(source);
    if (!dev) {
        std::fprintf(stderr, "cannot open %s\n", source);
        return 1;
    }
    tqcam_cap_cfg_t cfg;
    tqcam_cap_config_get(dev, &cfg);
    cfg.en_save_replay = 1;
    cfg.save_file = file; // the library keeps a copy of the name
    tqcam_cap_config_set(dev, &cfg);
    const int recorded = tqcam_cap_start(dev) ? take(dev, wanted) : 0;
    tqcam_cap_stop(dev); // closes the recording
    tqcam_dev_close(dev);

    dev = tqcam_dev_open_by_uri(file);
    const int replayed = dev && tqcam_cap_start(dev) ? take(dev, recorded) : 0;
    tqcam_dev_close(dev);
    tqcam_uninit();
    std::printf("%d frames recorded, %d played back\n", recorded, replayed);
    return recorded > 0 && replayed == recorded ? 0 : 1;
}
