#pragma once

#include "platform/Export.h"
#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"

#include <map>
#include <vector>

class TreflectMetaObject;

/** All meta objects of the process by class id; owns none of them. One, made on first use and never destroyed. Locked:
 *  from every thread, but a meta object must not be destroyed while others look for it. */
class REFLECTORB_API InterfaceRepository {
public:
    static InterfaceRepository *instance();

    InterfaceRepository(const InterfaceRepository &) = delete;
    InterfaceRepository &operator=(const InterfaceRepository &) = delete;

    /** The first of an id stays. Always true, also without memory to keep it. */
    bool registerInterface(TreflectMetaObject *meta);
    /** Whichever meta object is there under the id. Always true. */
    bool unregisterInterface(TreflectMetaObject *meta);
    /** Null if there is none. What is found completes its members first, with the run permission, which this takes for
     *  the time if need be. */
    TreflectMetaObject *findInterface(unsigned classId) const;
    /** Ascending; none when memory is short. */
    std::vector<unsigned> getIfIds() const;
    std::size_t size() const;

private:
    InterfaceRepository() = default;
    ~InterfaceRepository() = default;

    mutable OSWrap::Mutex lock_;
    std::map<unsigned, TreflectMetaObject *> interfaces_ RB_GUARDED_BY(lock_);
};
