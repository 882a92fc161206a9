#include "platform/UnitFigures.h"

#include "platform/Cancellation.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

/** The number behind the label, which stands near the beginning of one of the kernel's files; -1 if it does not. */
long figureFrom(const char *path, const char *label) {
    OSWrap::DisableCancelStateGuard guard;
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    char text[1024];
    const ssize_t length = ::read(fd, text, sizeof text - 1);
    ::close(fd);
    if (length <= 0) {
        return -1;
    }
    text[length] = '\0';
    const char *const found = std::strstr(text, label);
    if (found == nullptr) {
        return -1;
    }
    const char *const number = found + std::strlen(label);
    char *end = nullptr;
    const long value = std::strtol(number, &end, 10);
    return end != number ? value : -1;
}

} // namespace

long oscwGetActorSize() {
    // Resident pages are the second number. In the longer status file, lists of any length may come before.
    const long pages = figureFrom("/proc/self/statm", " ");
    return pages >= 0 ? pages * (::sysconf(_SC_PAGESIZE) / 1024) : -1;
}
long oscwGetUnitFreeMem() {
    return figureFrom("/proc/meminfo", "MemAvailable:"); // in KiB
}
