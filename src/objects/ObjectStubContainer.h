#pragma once

#include "objects/REFLECT_objectStub.h"

#include <map>
#include <utility>

/**
 * All stubs of the process, by location. Several may have the same one: an invalid stub and its successors. Sorted by
 * an order that also places named and nameless locations of one object; equal are those which the order of locations
 * does not tell apart.
 */
class TreflectObjectStubContainer {
public:
    struct ltOID {
        bool operator()(const TreflectObjectLocationIf *a, const TreflectObjectLocationIf *b) const;
    };

    /** The first valid one; null if there is none. Without a number, only one with the same server is the same. */
    TreflectObjectStub *find(const TreflectObjectLocationIf &location) const;
    /** False if memory is short. */
    bool insert(TreflectObjectStub *stub);
    /** True if it was there. */
    bool erase(TreflectObjectStub *stub);
    /** For changes of what a stub is sorted by; allocates nothing. False if it is not in here; it is changed all the
     *  same. */
    template <class Change>
    bool change(TreflectObjectStub *stub, const Change &change) {
        const auto entry = position(stub);
        if (entry == stubs_.end()) {
            change();
            return false;
        }
        auto node = stubs_.extract(entry);
        change();
        stubs_.insert(std::move(node));
        return true;
    }
    /** `hits(stub)` decides which become invalid. They stay here. */
    template <class Hits>
    void invalidateStubs(const Hits &hits) {
        for (const auto &[key, stub] : stubs_) {
            if (hits(*stub)) {
                stub->setInvalid();
            }
        }
    }

private:
    using Stubs = std::multimap<const TreflectObjectLocationIf *, TreflectObjectStub *, ltOID>;

    Stubs::iterator position(TreflectObjectStub *stub);

    Stubs stubs_;
};
