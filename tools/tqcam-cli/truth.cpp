// Decoded distance against a simulated scene's truth.
#include "cli.h"

#include <algorithm>
#include <cmath>
#include <cstring>

Truth::Truth(const std::string &path) : file_(std::fopen(path.c_str(), "rb"))
{
    if (!file_)
        throw CliError{EXIT_FAILED, "cannot open " + path + ": " + std::strerror(errno)};
}

Truth::~Truth()
{
    std::fclose(file_);
}

bool Truth::frame(uint32_t index, size_t pixels, std::vector<float> &out)
{
    out.resize(pixels);
    return fseeko(file_, static_cast<off_t>(index) * static_cast<off_t>(pixels * sizeof(float)), SEEK_SET) ==
               0 &&
           std::fread(out.data(), sizeof(float), pixels, file_) == pixels;
}

ErrorFigures error_figures(const std::vector<uint16_t> &dist, const std::vector<float> &truth)
{
    ErrorFigures figures;
    std::vector<double> errors;
    double sum = 0;
    for (size_t i = 0; i < dist.size() && i < truth.size(); i++) {
        if (!(truth[i] > 0))
            continue; // nothing there to measure
        if (dist[i] == 0 || dist[i] == 65500) {
            figures.dropped++;
            continue;
        }
        const double error = dist[i] - truth[i] * 1000.0;
        sum += error;
        errors.push_back(std::fabs(error));
    }
    figures.pixels = errors.size();
    if (errors.empty())
        return figures;
    const auto at = [&](double share) {
        const auto nth =
            errors.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(errors.size() - 1));
        std::nth_element(errors.begin(), nth, errors.end());
        return *nth;
    };
    figures.bias_mm = sum / static_cast<double>(errors.size());
    figures.median_mm = at(0.5);
    figures.p95_mm = at(0.95);
    return figures;
}
