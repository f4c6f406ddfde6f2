#include "progress.h"

#include <csignal>
#include <cstdio>
#include <unistd.h>

static volatile std::sig_atomic_t g_interrupted = 0;

Progress::Progress(std::string what, uint64_t total)
    : what_(std::move(what)), total_(total), terminal_(isatty(STDERR_FILENO) != 0)
{
    at(0);
}

Progress::~Progress()
{
    if (terminal_)
        std::fprintf(stderr, "\r\033[K");
}

void Progress::at(uint64_t done)
{
    if (!terminal_)
        return;
    if (total_ == 0) {
        std::fprintf(stderr, "\r%s %llu", what_.c_str(), static_cast<unsigned long long>(done));
        return;
    }
    const int percent = static_cast<int>(done >= total_ ? 100 : done * 100 / total_);
    if (percent == shown_)
        return;
    shown_ = percent;
    const std::string bar(static_cast<size_t>(percent) * 30 / 100, '#');
    std::fprintf(stderr, "\r%s [%-30s] %3d %%", what_.c_str(), bar.c_str(), percent);
}

void interrupt_catch()
{
    struct sigaction action = {};
    action.sa_handler = [](int) { g_interrupted = 1; };
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interrupted()
{
    return g_interrupted != 0;
}
