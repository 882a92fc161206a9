#pragma once

#include <string>

namespace Testing {

/** A fresh directory (mode 0700) that is removed with all it holds at the end of the scope. */
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const noexcept { return path_; }

private:
    std::string path_;
};

} // namespace Testing
