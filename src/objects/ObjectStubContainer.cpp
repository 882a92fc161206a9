#include "objects/ObjectStubContainer.h"

#include "orb/REFLECT_orb.h"

#include <algorithm>
#include <new>

namespace {

/** Where an object is, whatever its name. */
bool sameObject(const TreflectObjectLocationIf &a, const TreflectObjectLocationIf &b) {
    return a.getNamespaceId() == b.getNamespaceId() && a.getInternalOID() == b.getInternalOID() &&
           a.orbId() == b.orbId();
}

} // namespace

bool TreflectObjectStubContainer::Order::operator()(const TreflectObjectLocationIf *a,
                                                    const TreflectObjectLocationIf *b) const {
    if (!sameObject(*a, *b) || (a->hasOID() && b->hasOID())) {
        return *a < *b;
    }
    return !a->hasOID() && b->hasOID(); // nameless ones first
}

TreflectObjectStub *TreflectObjectStubContainer::find(const TreflectObjectLocationIf &location) const {
    // The nameless key is the first of those of the object.
    const TreflectORB::TreflectObjectLocation first(location.getInternalOID(), location.orbId(), nullptr,
                                                    TipprmiOID(nullptr, location.getNamespaceId()));
    for (auto entry = stubs_.lower_bound(&first); entry != stubs_.end() && sameObject(*entry->first, location);
         ++entry) {
        const bool equal = !(*entry->first < location) && !(location < *entry->first);
        // Without a number there is nothing but the object itself to tell one from another.
        const bool other = location.getInternalOID() == 0 && location.getServer() != entry->second->getServer();
        if (equal && !other && entry->second->isValid()) {
            return entry->second;
        }
    }
    return nullptr;
}

bool TreflectObjectStubContainer::insert(TreflectObjectStub *stub) {
    try {
        if (stub != nullptr) {
            stubs_.emplace(stub, stub);
        }
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

bool TreflectObjectStubContainer::erase(TreflectObjectStub *stub) {
    const auto isStub = [stub](const Stubs::value_type &entry) { return entry.second == stub; };
    const auto range = stubs_.equal_range(stub);
    auto entry = std::find_if(range.first, range.second, isStub);
    if (entry == range.second) { // its name or number may have been changed in here; it must not be left behind
        entry = std::find_if(stubs_.begin(), stubs_.end(), isStub);
        if (entry == stubs_.end()) {
            return false;
        }
    }
    stubs_.erase(entry);
    return true;
}
