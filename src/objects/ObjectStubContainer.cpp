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

bool TreflectObjectStubContainer::ltOID::operator()(const TreflectObjectLocationIf *a,
                                                    const TreflectObjectLocationIf *b) const {
    if (!sameObject(*a, *b) || (a->hasOID() && b->hasOID())) {
        return *a < *b;
    }
    return !a->hasOID() && b->hasOID(); // nameless ones first
}

TreflectObjectStub *TreflectObjectStubContainer::find(const TreflectObjectLocationIf &location) const {
    const auto suits = [&location](const TreflectObjectStub &stub) {
        // Without a number there is nothing but the object itself to tell one from another.
        return stub.isValid() && (location.getInternalOID() != 0 || location.getServer() == stub.getServer());
    };
    // First those of the object that have no name, which are equal to all; then, of many names, the one asked for.
    const TreflectORB::TreflectObjectLocation first(location.getInternalOID(), location.orbId(), nullptr,
                                                    TipprmiOID(nullptr, location.getNamespaceId()));
    auto entry = stubs_.lower_bound(&first);
    for (; entry != stubs_.end() && sameObject(*entry->first, location) && !entry->first->hasOID(); ++entry) {
        if (suits(*entry->second)) {
            return entry->second;
        }
    }
    if (location.hasOID()) {
        entry = stubs_.lower_bound(&location);
    }
    for (; entry != stubs_.end() && sameObject(*entry->first, location) && !(location < *entry->first); ++entry) {
        if (suits(*entry->second)) {
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
    const auto entry = position(stub);
    if (entry == stubs_.end()) {
        return false;
    }
    stubs_.erase(entry);
    return true;
}

TreflectObjectStubContainer::Stubs::iterator TreflectObjectStubContainer::position(TreflectObjectStub *stub) {
    const auto isStub = [stub](const Stubs::value_type &entry) { return entry.second == stub; };
    const auto range = stubs_.equal_range(stub);
    const auto entry = std::find_if(range.first, range.second, isStub);
    // Its name or number may have been changed in here; it must not be left behind.
    return entry != range.second ? entry : std::find_if(stubs_.begin(), stubs_.end(), isStub);
}
