#include "reflection/REFLECT_tieds.h"

#include "platform/Lock.h"
#include "platform/Log.h"

#include <exception>

template class Afw::Singleton<TreflectTieds>;

namespace {

using Locked = OSWrap::Lock<OSWrap::Mutex>;

} // namespace

TreflectTieds::TiedBase::~TiedBase() = default;

TreflectTieds *TreflectTieds::instance() {
    return Afw::Singleton<TreflectTieds>::get();
}

// What a handle holds is an object's handle, perhaps, whose destructor comes here again: so none is destroyed under the
// lock.

TreflectTieds::~TreflectTieds() {
    Tieds dropped;
    Locked lock(lock_);
    dropped.swap(tieds_);
}

bool TreflectTieds::adoptTied(const TreflectObject *object, const OSWrap::SmartPointer<TiedBase> &tied) {
    Locked lock(lock_);
    try {
        tieds_.emplace(object, tied);
        return true;
    } catch (const std::exception &) {
        return false;
    }
}

void TreflectTieds::destroyTieds(const TreflectObject *object) {
    Tieds dropped;
    Locked lock(lock_);
    const auto range = tieds_.equal_range(object);
    for (auto entry = range.first; entry != range.second;) {
        dropped.insert(tieds_.extract(entry++));
    }
}

void TreflectTieds::print() const {
    std::size_t count = 0;
    {
        Locked lock(lock_);
        count = tieds_.size();
    }
    LogDispatch(5, LogMakeString("%lu tieds are registered", static_cast<unsigned long>(count)),
                "REFLECT_memberFactory");
}
