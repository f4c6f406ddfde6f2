// A folder of the test's own, made the working directory while it stands and removed with all it holds.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>

inline std::string read_text(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

class TempDir {
  public:
    TempDir()
    {
        char name[] = "/tmp/tqcam-test-XXXXXX";
        path_ = mkdtemp(name);
        old_ = std::filesystem::current_path();
        std::filesystem::current_path(path_);
    }
    ~TempDir()
    {
        std::filesystem::current_path(old_);
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    std::string path() const { return path_.string(); }
    std::string file(const std::string &name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_, old_;
};
