#include "orb/ObjectTable_p.h"

#include "rmi/IPPRMI_objectSkeleton.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <new>
#include <string_view>
#include <utility>

namespace {

unsigned addressOf(const TipprmiObjectSkeleton *object) noexcept {
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(object) & 0xFFFFFFFFU);
}

} // namespace

unsigned ObjectTable::hashOf(const TipprmiOID &name) noexcept {
    const char *const text = name.getIdString();
    if (text == nullptr) {
        return kNameless;
    }
    const auto hash = static_cast<unsigned>(std::hash<std::string_view>()(text) & 0xFFFFFFFFU);
    return hash != kNameless ? hash : 1;
}

ObjectTable::Objects::iterator ObjectTable::entryOf(const TipprmiObjectSkeleton *object) noexcept {
    const auto entry = objects_.find(addressOf(object));
    if (entry != objects_.end() && entry->second.object == object) {
        return entry;
    }
    // Nearly never: only where addresses have more bits than numbers, and two objects have met.
    return !displaced_ ? objects_.end() : std::find_if(objects_.begin(), objects_.end(), [object](const auto &other) {
        return other.second.object == object;
    });
}

ObjectTable::Objects::iterator ObjectTable::place(TipprmiObjectSkeleton &object) {
    for (unsigned number = addressOf(&object);; ++number, displaced_ = true) {
        if (number == 0) {
            continue;
        }
        const auto [entry, added] = objects_.try_emplace(number, Entry{&object, kNameless});
        if (added) {
            return entry;
        }
    }
}

/** Needs memory only for an object that had no name here before. */
bool ObjectTable::index(Objects::value_type &entry) noexcept {
    auto &[number, indexed] = entry;
    const unsigned hash = hashOf(indexed.object->storedOID());
    if (indexed.hash == hash) {
        return true;
    }
    if (hash == kNameless) {
        names_.erase({indexed.hash, number});
    } else if (auto node = names_.extract({indexed.hash, number})) {
        node.value() = {hash, number};
        names_.insert(std::move(node));
    } else {
        try {
            names_.emplace(hash, number);
        } catch (const std::bad_alloc &) {
            return false;
        }
    }
    indexed.hash = hash;
    return true;
}

unsigned ObjectTable::add(TipprmiObjectSkeleton &object) noexcept {
    auto entry = entryOf(&object);
    const bool known = entry != objects_.end();
    try {
        entry = known ? entry : place(object);
    } catch (const std::bad_alloc &) {
        return 0;
    }
    if (!index(*entry) && !known) {
        objects_.erase(entry);
        return 0;
    }
    return entry->first;
}

void ObjectTable::remove(const TipprmiObjectSkeleton *object) noexcept {
    const auto entry = entryOf(object);
    if (entry != objects_.end()) {
        names_.erase({entry->second.hash, entry->first});
        objects_.erase(entry);
    }
}

bool ObjectTable::rename(const TipprmiObjectSkeleton &object) noexcept {
    const auto entry = entryOf(&object);
    return entry == objects_.end() || index(*entry);
}

TipprmiObjectSkeleton *ObjectTable::find(unsigned number) const noexcept {
    const auto entry = objects_.find(number);
    return entry != objects_.end() ? entry->second.object : nullptr;
}

ObjectTable::Found ObjectTable::find(const TipprmiOID &name) const noexcept {
    const unsigned hash = hashOf(name);
    if (hash == kNameless) {
        return {};
    }
    for (auto entry = names_.lower_bound({hash, 0}); entry != names_.end() && entry->first == hash; ++entry) {
        TipprmiObjectSkeleton *const object = find(entry->second);
        if (object->storedOID() == name) {
            return {entry->second, object};
        }
    }
    return {};
}
