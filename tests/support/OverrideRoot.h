#pragma once

#include "support/TempDir.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace Testing {

/** A root directory for processes that shall not be aborted by misuse of the run permission. */
class OverrideRoot {
public:
    OverrideRoot() {
        std::filesystem::create_directories(directory_.path() + "/ffs/run/zef_data/db");
        std::ofstream(directory_.path() + "/ffs/run/zef_data/db/NO_RMI_DEBUG").flush();
    }
    const std::string &path() const noexcept { return directory_.path(); }
    /** For runScenario(); with more variables if need be. */
    std::vector<std::string> environment(std::vector<std::string> more = {}) const {
        more.push_back("REFLECTORB_ROOT=" + path());
        return more;
    }

private:
    TempDir directory_;
};

} // namespace Testing
