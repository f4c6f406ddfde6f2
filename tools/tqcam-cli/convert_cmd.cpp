// tqcam convert: frame files from one sample format to another.
#include "cli.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <unistd.h>

struct ConvertOptions {
    std::string in, out, to;
};

// A frame file that is open, closed at the end of its scope.
struct FrameFile {
    int fd;
    FrameFile(const std::string &path, const char *mode) : fd(tqcam_file_open(path.c_str(), mode))
    {
        if (fd < 0)
            throw CliError{EXIT_FAILED, "cannot open " + path + ": " + std::strerror(errno)};
    }
    ~FrameFile() { tqcam_file_close(fd); }
    FrameFile(const FrameFile &) = delete;
    FrameFile &operator=(const FrameFile &) = delete;
};

static int _format(const std::map<std::string, int> &formats, const std::string &to)
{
    const auto found = formats.find(to);
    if (found != formats.end())
        return found->second;
    std::string names;
    for (const auto &format : formats)
        names += (names.empty() ? "" : ", ") + format.first;
    throw CliError{EXIT_USAGE, "this kind of frame file takes --to " + names};
}

// Reads image after image with one of the loaders and hands them on. Returns how many there were.
template <typename Sample, typename Load, typename Save>
static int _images(const std::string &in, const std::string &out, Load load, Save save)
{
    FrameFile source(in, "rb"), target(out, "wb");
    int w = 0, h = 0, planes = 1, images = 0;
    char tag[33] = "";
    load(source.fd, static_cast<Sample *>(nullptr), 0, &w, &h, &planes, tag); // reads the sizes
    if (w <= 0 || h <= 0 || planes <= 0)
        throw CliError{EXIT_FAILED, in + " is not a frame file that can be read"};
    lseek(source.fd, 0, SEEK_SET);
    std::vector<Sample> samples(static_cast<size_t>(w) * static_cast<size_t>(h) *
                                static_cast<size_t>(planes));
    const int length = static_cast<int>(samples.size());
    while (load(source.fd, samples.data(), length, &w, &h, &planes, images == 0 ? tag : nullptr) == length) {
        if (!save(target.fd, samples.data(), length, w, h, planes, tag))
            throw CliError{EXIT_FAILED, "cannot write " + out};
        images++;
    }
    return images;
}

static void _convert(const GlobalOptions &global, const ConvertOptions &options)
{
    Library library(global);
    char head[9] = "";
    {
        FrameFile source(options.in, "rb");
        if (read(source.fd, head, 8) != 8)
            throw CliError{EXIT_FAILED, options.in + " is not a frame file"};
    }
    int images = 0;
    if (std::strncmp(head, "TQ_RAW,", 7) == 0) {
        const int to = _format({{"u16", TQCAM_RAW_U16}, {"u32", TQCAM_RAW_U32}}, options.to);
        images = _images<uint16_t>(
            options.in, options.out,
            [](int fd, uint16_t *dst, int n, int *w, int *h, int *planes, char *tag) {
                return tqcam_frame_load_raw(fd, dst, n, w, h, planes, tag, tag ? 33 : 0);
            },
            [to](int fd, const uint16_t *src, int n, int w, int h, int planes, const char *tag) {
                return tqcam_frame_save_raw(fd, to, src, n, w, h, planes, tag);
            });
    } else if (std::strncmp(head, "TQ_DIST,", 8) == 0) {
        const int to =
            _format({{"f32", TQCAM_DIST_F32}, {"u16", TQCAM_DIST_U16}, {"u32", TQCAM_DIST_U32}}, options.to);
        images = _images<float>(
            options.in, options.out,
            [](int fd, float *dst, int n, int *w, int *h, int *, char *) {
                return tqcam_frame_load_distance(fd, dst, n, w, h);
            },
            [to](int fd, const float *src, int n, int w, int h, int, const char *) {
                return tqcam_frame_save_distance(fd, to, src, n, w, h);
            });
    } else if (std::strncmp(head, "TQ_GRAY,", 8) == 0) {
        const int to = _format({{"u8", TQCAM_GRAY_U8}, {"u16", TQCAM_GRAY_U16}}, options.to);
        images = _images<float>(
            options.in, options.out,
            [](int fd, float *dst, int n, int *w, int *h, int *, char *) {
                return tqcam_frame_load_gray(fd, dst, n, w, h);
            },
            [to](int fd, const float *src, int n, int w, int h, int, const char *) {
                return tqcam_frame_save_gray(fd, to, src, n, w, h);
            });
    } else {
        throw CliError{EXIT_FAILED, options.in + " is not a frame file"};
    }
    if (images == 0)
        throw CliError{EXIT_FAILED, options.in + " holds no whole image"};
    std::printf("%d images\n", images);
}

void add_convert(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command = app.add_subcommand("convert", "frame files from one sample format to another");
    auto options = std::make_shared<ConvertOptions>();
    command->add_option("IN", options->in, "raw, distance or gray frame file")
        ->required()
        ->check(CLI::ExistingFile);
    command->add_option("OUT", options->out, "frame file to write")->required();
    command->add_option("--to", options->to, "u8, u16, u32 or f32, as far as the kind takes it")->required();
    command->callback([&global, options] { _convert(global, *options); });
}
