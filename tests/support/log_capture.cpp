#include "support/log_capture.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <unistd.h>

#include "tq_log.h"

LogCapture::LogCapture()
{
    char name[] = "/tmp/tqcam-test-log-XXXXXX";
    close(mkstemp(name));
    path_ = name;
    tq_log_init(tq_log_default(), path_.c_str(), "TEST");
    tq_log_cfg(nullptr, 0, 7, 0);
    tq_log_cfg(nullptr, 1, 0, 1);
}

LogCapture::~LogCapture()
{
    tq_log_uninit(tq_log_default());
    unlink(path_.c_str());
}

std::string LogCapture::text() const
{
    std::ifstream in(path_, std::ios::binary);
    std::string all((std::istreambuf_iterator<char>(in)), {});
    return all.size() > skip_ ? all.substr(skip_) : std::string();
}

bool LogCapture::has(const std::string &part) const
{
    return text().find(part) != std::string::npos;
}

int LogCapture::count(const std::string &part) const
{
    const std::string all = text();
    int n = 0;
    for (size_t at = all.find(part); at != std::string::npos; at = all.find(part, at + part.size()))
        n++;
    return n;
}

void LogCapture::clear()
{
    skip_ += text().size();
}
