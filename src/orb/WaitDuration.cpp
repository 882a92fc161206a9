#include "orb/WaitDuration_p.h"

#include "platform/Environment_p.h"
#include "platform/Log.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kDefaultMinutes = 10;

/** The number at the start of the first line; 0 if there is none that an int holds. */
int parseMinutes(int descriptor) {
    struct stat status;
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        return 0;
    }
    char line[64];
    const ssize_t length = ::read(descriptor, line, sizeof line - 1);
    line[length > 0 ? length : 0] = '\0';
    for (char &c : line) {
        if (c == '\n' || c == '\0') {
            c = '\0';
            break;
        }
    }
    errno = 0;
    const long minutes = std::strtol(line, nullptr, 10);
    return errno == 0 && minutes >= INT_MIN && minutes <= INT_MAX ? static_cast<int>(minutes) : 0;
}

int readMinutes(const std::string &path) {
    // Without waiting for somebody at the other end, should it be a pipe.
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
        return kDefaultMinutes;
    }
    const int minutes = parseMinutes(descriptor);
    ::close(descriptor);
    return minutes;
}

} // namespace

std::string waitDurationPath() {
    return Platform::environment().rootPrefix + "/ffs/run/logs/orbWaitDuration";
}

unsigned readWaitDuration(const std::string &path) {
    int minutes = readMinutes(path);
    if (minutes < kDefaultMinutes || minutes % 5 != 0) {
        LogDispatch(4, "ORB Wait duration should be >= 10 andmultiple of 5. Taking default value of 10", "REFLECT_orb");
        minutes = kDefaultMinutes;
    }
    const int ignored = std::system(("chmod 664 " + path).c_str());
    static_cast<void>(ignored);
    return static_cast<unsigned>(minutes);
}
