#include "long_work.h"

#include <atomic>
#include <chrono>
#include <iostream>
#include <thread>
#include <unistd.h>

#include "cli.h"
#include "progress.h"

void run_long(const std::string &what, double seconds, const std::function<void()> &work)
{
    using clock = std::chrono::steady_clock;
    std::atomic<bool> done{false};
    Progress progress(what, 1000);
    std::thread bar([&] {
        for (const auto start = clock::now(); !done;) {
            const double passed = std::chrono::duration<double>(clock::now() - start).count() / seconds;
            progress.at(static_cast<uint64_t>(passed < 0.9 ? passed * 1000 : 1000 - 90 / passed));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    work();
    done = true;
    bar.join();
}

void confirm(const std::string &question, bool yes)
{
    if (yes)
        return;
    if (isatty(STDIN_FILENO) == 0)
        throw CliError{EXIT_USAGE, "this changes the camera; say --yes where nobody can be asked"};
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "y" && answer != "yes")
        throw CliError{EXIT_FAILED, "nothing was done"};
}
