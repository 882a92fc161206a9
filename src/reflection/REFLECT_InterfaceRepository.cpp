#include "reflection/REFLECT_InterfaceRepository.h"

#include "platform/Lock.h"
#include "platform/Log.h"
#include "reflection/REFLECT_metaObject.h"
#include "threads/HandlerState.h"

#include <atomic>
#include <exception>
#include <new>
#include <pthread.h>

namespace {

constexpr char kSource[] = "REFLECT_InterfaceRepository";
using Locked = OSWrap::Lock<OSWrap::Mutex>;

} // namespace

InterfaceRepository *InterfaceRepository::instance() {
    static pthread_mutex_t creation = PTHREAD_MUTEX_INITIALIZER;
    alignas(InterfaceRepository) static unsigned char memory[sizeof(InterfaceRepository)];
    static std::atomic<InterfaceRepository *> repository{nullptr};

    InterfaceRepository *existing = repository.load(std::memory_order_acquire);
    if (existing == nullptr) {
        pthread_mutex_lock(&creation);
        existing = repository.load(std::memory_order_relaxed);
        if (existing == nullptr) {
            existing = new (memory) InterfaceRepository;
            repository.store(existing, std::memory_order_release);
        }
        pthread_mutex_unlock(&creation);
    }
    return existing;
}

bool InterfaceRepository::registerInterface(TreflectMetaObject *meta) {
    bool memory = true;
    {
        Locked lock(lock_);
        try {
            interfaces_.emplace(meta->getClassId(), meta);
        } catch (const std::exception &) {
            memory = false;
        }
    }
    if (!memory) {
        LogDispatch(3, LogMakeString("InterfaceRepository has no memory for class 0x%X", meta->getClassId()), kSource);
    }
    return true;
}

bool InterfaceRepository::unregisterInterface(TreflectMetaObject *meta) {
    Locked lock(lock_);
    interfaces_.erase(meta->getClassId());
    return true;
}

TreflectMetaObject *InterfaceRepository::findInterface(unsigned classId) const {
    TreflectMetaObject *found = nullptr;
    {
        Locked lock(lock_);
        const auto entry = interfaces_.find(classId);
        found = entry != interfaces_.end() ? entry->second : nullptr;
    }
    if (found == nullptr) {
        LogDispatch(6,
                    LogMakeString("InterfaceRepository::findInterface(0x%X) Meta-information CANNOT BE FOUND", classId),
                    kSource);
        return nullptr;
    }
    TreflectHandlerState state(true); // nobody sees it half complete
    found->completeMetaInformation();
    return found;
}

std::vector<unsigned> InterfaceRepository::getIfIds() const {
    std::vector<unsigned> ids;
    Locked lock(lock_);
    try {
        for (const auto &entry : interfaces_) {
            ids.push_back(entry.first);
        }
    } catch (const std::exception &) {
        ids.clear();
    }
    return ids;
}

std::size_t InterfaceRepository::size() const {
    Locked lock(lock_);
    return interfaces_.size();
}
