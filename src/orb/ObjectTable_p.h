#pragma once

#include "rmi/IPPRMI_oid.h"

#include <map>
#include <set>
#include <utility>

class TipprmiObjectSkeleton;

/**
 * The objects of a broker by number, and those that have a name by that, too. Owns none of them, and looks at none but
 * those that are added, renamed or found. Not synchronised by itself.
 */
class ObjectTable {
public:
    struct Found {
        unsigned number = 0;
        TipprmiObjectSkeleton *object = nullptr;
    };

    /** The object's number: its address cut to 32 bits; if that is nothing or another object's, the next one above. An
     *  object that is here keeps its number. 0, and it is not added, if memory is short. */
    unsigned add(TipprmiObjectSkeleton &object) noexcept;
    /** By the address alone: the object may be gone. */
    void remove(const TipprmiObjectSkeleton *object) noexcept;
    /** For an object whose name was changed, here or not. False if memory is short: then it has no name here. */
    bool rename(const TipprmiObjectSkeleton &object) noexcept;

    /** Null if there is none. */
    TipprmiObjectSkeleton *find(unsigned number) const noexcept;
    /** Of all that have the name the one with the lowest number; number 0 if none has. */
    Found find(const TipprmiOID &name) const noexcept;

private:
    struct Entry {
        TipprmiObjectSkeleton *object;
        unsigned hash; // under which its name is in the index; kNameless if it is not
    };
    using Objects = std::map<unsigned, Entry>;
    static constexpr unsigned kNameless = 0;

    static unsigned hashOf(const TipprmiOID &name) noexcept;
    Objects::iterator entryOf(const TipprmiObjectSkeleton *object) noexcept;
    Objects::iterator place(TipprmiObjectSkeleton &object);
    bool index(Objects::value_type &entry) noexcept;

    Objects objects_;
    // Hash of the name, then number. The name itself is the object's: numbers are cheaper to keep, and to compare.
    std::set<std::pair<unsigned, unsigned>> names_;
    bool displaced_ = false; // an object once got another number than that of its address
};
