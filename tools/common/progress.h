// What long work shows on a terminal, and how Ctrl-C reaches it.
#pragma once

#include <cstdint>
#include <string>

// A bar on standard error while the work runs; silent when that isn't a terminal.
class Progress {
  public:
    // total 0: the amount isn't known, and a count is shown in a bar's place
    Progress(std::string what, uint64_t total);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
    void at(uint64_t done);

  private:
    std::string what_;
    uint64_t total_;
    int shown_ = -1;
    bool terminal_;
};

// From here on Ctrl-C ends the work in an orderly way: interrupted() turns true, a second one kills.
void interrupt_catch();
bool interrupted();
