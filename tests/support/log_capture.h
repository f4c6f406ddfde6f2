// Catches what the library logs: the default logger writes to a file of the test's own while one of these
// stands, so that a test of a refusal can look for its line.
#pragma once

#include <string>

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::string text() const; // all lines since construction or clear()
    bool has(const std::string &part) const;
    int count(const std::string &part) const; // how often part occurs
    void clear();

  private:
    std::string path_;
    size_t skip_ = 0;
};
