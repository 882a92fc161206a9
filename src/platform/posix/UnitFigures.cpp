#include "platform/UnitFigures.h"

#include "platform/Cancellation.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

/** The number behind a label in one of the kernel's status files, which count in kB. */
long kibFrom(const char *path, const char *label) {
    OSWrap::DisableCancelStateGuard guard;
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    char text[4096];
    const ssize_t length = ::read(fd, text, sizeof text - 1);
    ::close(fd);
    if (length <= 0) {
        return -1;
    }
    text[length] = '\0';
    const char *found = std::strstr(text, label);
    long value = -1;
    return found != nullptr && std::sscanf(found + std::strlen(label), "%ld", &value) == 1 ? value : -1;
}

} // namespace

long oscwGetActorSize() {
    return kibFrom("/proc/self/status", "VmRSS:");
}
long oscwGetUnitFreeMem() {
    return kibFrom("/proc/meminfo", "MemAvailable:");
}
