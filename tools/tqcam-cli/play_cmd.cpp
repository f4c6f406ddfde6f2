// tqcam play: retrieves and decodes, and says how it went.
#include "cli.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "progress.h"

using clock_type = std::chrono::steady_clock;

struct PlayOptions {
    std::string uri, truth;
    std::vector<std::string> filters;
    uint32_t frames = 0;
    bool fast = false, json = false, each = false;
};

static double _seconds_since(clock_type::time_point start)
{
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

static uint64_t _hash(uint64_t hash, const std::vector<uint16_t> &pixels) // FNV-1a over samples
{
    for (const uint16_t pixel : pixels)
        hash = (hash ^ pixel) * 1099511628211u;
    return hash;
}

static void _play(const GlobalOptions &global, const PlayOptions &options)
{
    Library library(global, options.json);
    Device device(options.uri);
    for (const std::string &filter : options.filters)
        filter_apply(device, filter);
    std::unique_ptr<Truth> truth;
    if (!options.truth.empty())
        truth = std::make_unique<Truth>(options.truth);

    Capture capture(device, options.fast);
    uint32_t limit = options.frames != 0 ? options.frames : capture.frames_total();
    if (options.frames == 0 && !device.is_replay())
        std::fprintf(stderr, "capturing until Ctrl-C\n");
    if (limit > capture.frames_total() && capture.frames_total() != 0)
        limit = capture.frames_total();

    nlohmann::json frames = nlohmann::json::array();
    const bool table = options.each || truth;
    if (table && !options.json)
        std::printf("frame  index  size       cb     ib  valid%s\n",
                    truth ? "   median mm   95 % mm   bias mm" : "");
    std::vector<uint16_t> dist, gray;
    std::vector<float> true_m;
    double decode_s = 0;
    uint64_t hash = 14695981039346656037u;
    uint32_t count = 0, failed = 0, width = 0, height = 0;
    double cb = 0, ib = 0, median = 0, p95 = 0;
    const auto start = clock_type::now();
    {
        Progress progress("playing", limit);
        while (!interrupted() && (limit == 0 || count < limit) && capture.next()) {
            const tqcam_frame_info_t &info = capture.info;
            const size_t pixels = static_cast<size_t>(info.width) * info.height;
            dist.resize(pixels);
            gray.resize(pixels);
            const auto before = clock_type::now();
            const uint32_t len = info.frame_size;
            const bool ok = tqcam_frame_get_dist_u16(device.get(), dist.data(), static_cast<uint32_t>(pixels),
                                                     capture.raw.data(), len, &info) > 0 &&
                            tqcam_frame_get_gray_u16(device.get(), gray.data(), static_cast<uint32_t>(pixels),
                                                     capture.raw.data(), len, &info) > 0;
            decode_s += _seconds_since(before);
            count++;
            progress.at(count);
            if (!ok) {
                failed++;
                continue;
            }
            hash = _hash(_hash(hash, dist), gray);
            width = info.width;
            height = info.height;
            cb = info.temp_cb / 10.0;
            ib = info.temp_ib / 10.0;
            size_t valid = 0;
            for (const uint16_t d : dist)
                valid += d != 0 && d != 65500;
            nlohmann::json row = {{"frame", count - 1},
                                  {"index", info.frame_idx},
                                  {"temp_cb", cb},
                                  {"temp_ib", ib},
                                  {"valid", valid}};
            ErrorFigures figures;
            if (truth && truth->frame(count - 1, pixels, true_m)) {
                figures = error_figures(dist, true_m);
                median += figures.median_mm;
                p95 += figures.p95_mm;
                row["median_mm"] = figures.median_mm;
                row["p95_mm"] = figures.p95_mm;
                row["bias_mm"] = figures.bias_mm;
            }
            if (options.json)
                frames.push_back(row);
            else if (table) {
                std::printf("%5u  %5u  %ux%u  %5.1f  %5.1f  %4.0f %%", count - 1, info.frame_idx, info.width,
                            info.height, cb, ib,
                            100.0 * static_cast<double>(valid) / static_cast<double>(pixels));
                if (truth)
                    std::printf("  %9.1f  %8.1f  %8.1f", figures.median_mm, figures.p95_mm, figures.bias_mm);
                std::printf("\n");
            }
        }
    }
    const double wall = _seconds_since(start);
    const double decode_fps = decode_s > 0 ? count / decode_s : 0;
    if (options.json) {
        nlohmann::json out = {{"frames", count},
                              {"undecodable", failed},
                              {"lost", capture.frames_lost()},
                              {"seconds", wall},
                              {"frames_per_second", wall > 0 ? count / wall : 0},
                              {"decoded_per_second", decode_fps},
                              {"width", width},
                              {"height", height},
                              {"hash", hash},
                              {"each", frames}};
        if (truth && count > 0) {
            out["median_mm"] = median / count;
            out["p95_mm"] = p95 / count;
        }
        std::printf("%s\n", out.dump(2).c_str());
    } else {
        std::printf("%u frames of %ux%u in %.2f s (%.1f frames/s), %llu lost, %u not decodable\n", count,
                    width, height, wall, wall > 0 ? count / wall : 0.0,
                    static_cast<unsigned long long>(capture.frames_lost()), failed);
        std::printf("distance and gray decoded at %.0f frames/s; last temperatures %.1f and %.1f degrees\n",
                    decode_fps, cb, ib);
        std::printf("hash of all distance and gray images %016llx\n", static_cast<unsigned long long>(hash));
        if (truth && count > 0)
            std::printf(
                "against truth: median error %.1f mm, 95 %% of pixels within %.1f mm (means over frames)\n",
                median / count, p95 / count);
    }
    if (count == 0 && !interrupted())
        throw CliError{EXIT_FAILED, "no frame: " + capture.end_reason()};
    if (limit != 0 && count < limit && !interrupted())
        throw CliError{EXIT_FAILED, "only " + std::to_string(count) + " of " + std::to_string(limit) +
                                        " frames: " + capture.end_reason()};
}

void add_play(CLI::App &app, const GlobalOptions &global)
{
    CLI::App *command =
        app.add_subcommand("play", "retrieve and decode frames, say rates, losses and temperatures");
    auto options = std::make_shared<PlayOptions>();
    command->add_option("URI", options->uri, "camera or recording");
    command->add_option("-n,--frames", options->frames, "stop after so many");
    command->add_flag("--fast", options->fast, "a recording as fast as it decodes, not at its own pace");
    command->add_flag("--each", options->each, "a line for each frame");
    command->add_option("--truth", options->truth, "true distances beside a simulated recording")
        ->check(CLI::ExistingFile);
    command->add_option("--filter", options->filters, "switch a filter, as tqcam filter --help tells");
    command->add_flag("--json", options->json, "for scripts");
    command->callback([&global, options] { _play(global, *options); });
}
