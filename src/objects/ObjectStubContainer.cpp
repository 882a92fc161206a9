#include "objects/ObjectStubContainer.h"

#include "orb/REFLECT_orb.h"

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
        if (equal && entry->second->isValid()) {
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
    const auto range = stubs_.equal_range(stub);
    for (auto entry = range.first; entry != range.second; ++entry) {
        if (entry->second == stub) {
            stubs_.erase(entry);
            return true;
        }
    }
    return false;
}
