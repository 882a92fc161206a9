#include "platform/transport/UnitDirectory_p.h"

#include "platform/Cancellation.h"
#include "platform/Lock.h"
#include "platform/Log.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Transport {

namespace {

std::string reason(const char *what, const std::string &path, int error) {
    char text[128];
    return LogMakeString("%s %s: %s", what, path.c_str(), strerror_r(error, text, sizeof text));
}

/** Passes by itself. */
bool noDescriptor(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

} // namespace

UnitDirectory::UnitDirectory(std::string path, unsigned lastName) : path_(std::move(path)), lastName_(lastName) {}

bool UnitDirectory::open(std::string &problem) {
    OSWrap::DisableCancelStateGuard guard;
    OSWrap::Lock<OSWrap::Mutex> lock(lock_);
    if (names_) {
        return true;
    }
    if (::mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST) {
        problem = reason("cannot make directory", path_, errno);
        return false;
    }
    directory_ = Descriptor(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory_) {
        problem = reason("cannot open directory", path_, errno);
        return false;
    }
    if (!checkOwner(problem)) {
        directory_.reset();
        return false;
    }
    ::flock(directory_.get(), LOCK_SH | LOCK_NB); // keeps those away who tidy up old files
    const std::string names = path_ + "/names";
    names_ = Descriptor(::open(names.c_str(), O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!names_) {
        problem = reason("cannot open", names, errno);
        return false;
    }
    return true;
}

bool UnitDirectory::checkOwner(std::string &problem) RB_NO_ANALYSIS {
    struct stat status {};
    if (::fstat(directory_.get(), &status) != 0) {
        problem = reason("cannot read state of", path_, errno);
        return false;
    }
    if (status.st_uid != ::geteuid()) {
        problem = LogMakeString("directory %s belongs to user %lu, this actor runs as user %lu", path_.c_str(),
                                static_cast<unsigned long>(status.st_uid), static_cast<unsigned long>(::geteuid()));
        return false;
    }
    if ((status.st_mode & 077) != 0) {
        problem = LogMakeString("directory %s is open to others (mode %03o); chmod 700 it", path_.c_str(),
                                static_cast<unsigned>(status.st_mode & 0777));
        return false;
    }
    return true;
}

bool UnitDirectory::lockName(unsigned name) {
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(name);
    range.l_len = 1;
    return ::fcntl(names_.get(), F_OFD_SETLK, &range) == 0;
}

void UnitDirectory::unlockName(unsigned name) {
    struct flock range {};
    range.l_type = F_UNLCK;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(name);
    range.l_len = 1;
    static_cast<void>(::fcntl(names_.get(), F_OFD_SETLK, &range));
}

unsigned UnitDirectory::claimName() {
    OSWrap::DisableCancelStateGuard guard;
    OSWrap::Lock<OSWrap::Mutex> lock(lock_);
    if (!names_) {
        return 0;
    }
    for (unsigned tries = 0; tries < lastName_; ++tries) {
        // Appending is atomic between processes, and leaves the position behind what was appended: a ticket.
        const char byte = 0;
        if (::write(names_.get(), &byte, 1) != 1) {
            break;
        }
        const off_t ticket = ::lseek(names_.get(), 0, SEEK_CUR) - 1;
        const auto name = static_cast<unsigned>(ticket % static_cast<off_t>(lastName_)) + kFirstName;
        if (ticket % 4096 == 4095) { // the length counts, the bytes do not
            static_cast<void>(
                ::fallocate(names_.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, (ticket + 1) & ~off_t{4095}));
        }
        if (own_.count(name) == 0 && lockName(name)) {
            own_.insert(name);
            return name;
        }
    }
    return 0;
}

bool UnitDirectory::owns(unsigned name) {
    OSWrap::Lock<OSWrap::Mutex> lock(lock_);
    return own_.count(name) != 0;
}

void UnitDirectory::releaseName(unsigned name) {
    OSWrap::DisableCancelStateGuard guard;
    OSWrap::Lock<OSWrap::Mutex> lock(lock_);
    if (own_.erase(name) != 0) {
        unlockName(name);
    }
}

std::string UnitDirectory::file(const char *prefix, unsigned name) const {
    return path_ + LogMakeString("/%s%04x", prefix, name);
}

/** Socket addresses are short; a path that is too long goes by way of the open directory. */
bool UnitDirectory::address(const std::string &path, sockaddr_un &where) const RB_NO_ANALYSIS {
    where = sockaddr_un{};
    where.sun_family = AF_UNIX;
    std::string text = path;
    if (text.size() >= sizeof where.sun_path) {
        text = LogMakeString("/proc/self/fd/%d/", directory_.get()) + path.substr(path_.size() + 1);
    }
    if (text.size() >= sizeof where.sun_path) {
        return false;
    }
    std::memcpy(where.sun_path, text.c_str(), text.size() + 1);
    return true;
}

Descriptor UnitDirectory::listen(unsigned name, std::string &problem) {
    OSWrap::DisableCancelStateGuard guard;
    const std::string hidden = file("t.", name);
    const std::string visible = file("a.", name);
    Descriptor listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) {
        problem = reason("no socket for", visible, errno);
        return {};
    }
    ::unlink(hidden.c_str()); // of a dead one: the name is ours
    sockaddr_un where;
    if (!address(hidden, where) ||
        ::bind(listener.get(), reinterpret_cast<const sockaddr *>(&where), sizeof where) != 0 ||
        ::listen(listener.get(), 4096) != 0 || ::rename(hidden.c_str(), visible.c_str()) != 0) {
        problem = reason("cannot listen at", visible, errno);
        ::unlink(hidden.c_str());
        return {};
    }
    return listener;
}

void UnitDirectory::removeSocket(unsigned name) {
    ::unlink(file("a.", name).c_str());
}

std::vector<unsigned> UnitDirectory::sockets() const {
    OSWrap::DisableCancelStateGuard guard;
    std::vector<unsigned> found;
    if (DIR *list = ::opendir(path_.c_str())) {
        while (const dirent *entry = ::readdir(list)) {
            unsigned name = 0;
            char rest = 0;
            if (std::sscanf(entry->d_name, "a.%4x%c", &name, &rest) == 1 && name != 0) {
                found.push_back(name);
            }
        }
        ::closedir(list);
    }
    return found;
}

UnitDirectory::Reach UnitDirectory::connect(unsigned name, Descriptor &connection) const {
    OSWrap::DisableCancelStateGuard guard;
    sockaddr_un where;
    Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket || !address(file("a.", name), where)) {
        return !socket && noDescriptor(errno) ? Reach::busy : Reach::failed;
    }
    if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&where), sizeof where) == 0) {
        connection = std::move(socket);
        return Reach::connected;
    }
    if (errno == ECONNREFUSED || errno == ENOENT) {
        return Reach::stale;
    }
    return errno == EAGAIN || errno == EINTR || noDescriptor(errno) ? Reach::busy : Reach::failed;
}

bool UnitDirectory::removeIfStale(unsigned name) {
    OSWrap::DisableCancelStateGuard guard;
    OSWrap::Lock<OSWrap::Mutex> lock(lock_);
    if (names_ && own_.count(name) == 0 && lockName(name)) { // nobody alive has it
        ::unlink(file("a.", name).c_str());
        ::unlink(file("t.", name).c_str());
        unlockName(name);
    }
    return ::access(file("a.", name).c_str(), F_OK) != 0;
}

} // namespace Transport
