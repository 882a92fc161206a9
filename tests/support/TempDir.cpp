#include "support/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace Testing {

TempDir::TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "reflectorb-test-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
    path_ = name;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

} // namespace Testing
