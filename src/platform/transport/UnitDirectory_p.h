#pragma once

#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"
#include "platform/transport/Descriptor_p.h"

#include <set>
#include <string>
#include <sys/un.h>
#include <vector>

namespace Transport {

/**
 * The run-time directory of a unit: the sockets of its actors ("a.<name id>") and the file "names", which gives out
 * name ids. A name id is taken by a lock on the byte of that number, which the kernel drops with its process; the
 * length of the file is the ticket of the next one, so that an id comes back only after all others had their turn.
 * Nobody ever waits for anybody here: an actor may be stopped at any instruction.
 */
class UnitDirectory {
public:
    static constexpr unsigned kFirstName = 1;
    static constexpr unsigned kLastName = 0xFFFF;

    explicit UnitDirectory(std::string path, unsigned lastName = kLastName);

    /** Makes and checks the directory. On false `problem` says why it cannot be used. Idempotent. */
    bool open(std::string &problem);

    /** 0 if none is free. */
    unsigned claimName();
    void releaseName(unsigned name);
    /** Whether this process has claimed the name. */
    bool owns(unsigned name);

    /** A listening socket under that name, visible to others only when it listens. */
    Descriptor listen(unsigned name, std::string &problem);
    void removeSocket(unsigned name);
    /** The names under which somebody listens or listened. */
    std::vector<unsigned> sockets() const;

    enum class Reach { connected, stale, busy, failed };
    /** Connects without waiting. stale: nobody listens; busy: worth another try. */
    Reach connect(unsigned name, Descriptor &connection) const;
    /** Removes the socket of a dead actor; leaves that of a live one alone. False if there still is one: an actor that
     *  dies lets go of its sockets and of its name one after the other. */
    bool removeIfStale(unsigned name);

private:
    bool checkOwner(std::string &problem);
    bool lockName(unsigned name) RB_REQUIRES(lock_);
    void unlockName(unsigned name) RB_REQUIRES(lock_);
    std::string file(const char *prefix, unsigned name) const;
    bool address(const std::string &path, sockaddr_un &where) const;

    const std::string path_;
    const unsigned lastName_;
    OSWrap::Mutex lock_;
    Descriptor directory_ RB_GUARDED_BY(lock_);
    Descriptor names_ RB_GUARDED_BY(lock_);
    std::set<unsigned> own_ RB_GUARDED_BY(lock_);
};

} // namespace Transport
