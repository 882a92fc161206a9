#include "reflection/REFLECT_tieds.h"

#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/ThreadAnnotations.h"
#include "threads/HandlerThreadsType_p.h"
#include "threads/PartingState_p.h"

#include <exception>
#include <map>
#include <new>

template class Afw::Singleton<TreflectTieds>;

namespace {

using Locked = OSWrap::Lock<OSWrap::Mutex>;
using Tieds = std::multimap<const TreflectObject *, OSWrap::SmartPointer<TreflectTieds::TiedBase>>;

/** Whether nobody else can be about to use a handle, which takes the run permission. */
bool isLastUser() {
    return !ThreadEnd::begun() || handlerThreads() == nullptr || handlerThreads()->others() == 0;
}

} // namespace

/** Never destroyed. */
struct TreflectTieds::Registry {
    OSWrap::Mutex lock;
    Tieds tieds RB_GUARDED_BY(lock);
    bool closed RB_GUARDED_BY(lock) = false;

    static Registry &get() {
        alignas(Registry) static unsigned char memory[sizeof(Registry)];
        static Registry &registry = *new (memory) Registry;
        return registry;
    }
};

TreflectTieds::TiedBase::~TiedBase() = default;

TreflectTieds *TreflectTieds::instance() {
    return Afw::Singleton<TreflectTieds>::get();
}

// What a handle holds is an object's handle, perhaps, whose destructor comes here again: so none is destroyed under the
// lock.

TreflectTieds::~TreflectTieds() {
    Registry &registry = Registry::get();
    const bool last = isLastUser();
    Tieds dropped;
    Locked lock(registry.lock);
    registry.closed = true;
    if (last) {
        dropped.swap(registry.tieds);
    }
}

bool TreflectTieds::adoptTied(const TreflectObject *object, const OSWrap::SmartPointer<TiedBase> &tied) {
    Registry &registry = Registry::get();
    Locked lock(registry.lock);
    try {
        if (!registry.closed) {
            registry.tieds.emplace(object, tied);
        }
        return !registry.closed;
    } catch (const std::exception &) {
        return false;
    }
}

void TreflectTieds::destroyTieds(const TreflectObject *object) {
    Registry &registry = Registry::get();
    Tieds dropped;
    Locked lock(registry.lock);
    const auto range = registry.tieds.equal_range(object);
    for (auto entry = range.first; entry != range.second;) {
        dropped.insert(registry.tieds.extract(entry++));
    }
}

void TreflectTieds::print() {
    Registry &registry = Registry::get();
    std::size_t count = 0;
    {
        Locked lock(registry.lock);
        count = registry.tieds.size();
    }
    LogDispatch(5, LogMakeString("%lu tieds are registered", static_cast<unsigned long>(count)),
                "REFLECT_memberFactory");
}
