#include "observation/REFLECT_Observable.h"

#include "objects/MethodAtWork_p.h"
#include "observation/REFLECT_ObserverClient.h"
#include "platform/Log.h"

#include <exception>
#include <iterator>
#include <list>
#include <utility>

namespace {

constexpr char kSource[] = "REFLECT_Observer";

} // namespace

TreflectObservable::TreflectObservable() = default;
TreflectObservable::~TreflectObservable() = default;

void TreflectObservable::registerObserver(unsigned when, const unsigned &classCode, const unsigned &methodCode,
                                          const TreflectObserverClient &observer) {
    try {
        auto copy = std::make_shared<const TreflectObserverClient>(observer);
        MethodAtWork::goOn();
        std::unique_ptr<Observers> &observers = when == 0 ? pre_ : post_;
        if (observers == nullptr) {
            observers = std::make_unique<Observers>();
        }
        observers->emplace(Key(classCode, methodCode), std::move(copy));
    } catch (const std::exception &) {
        LogDispatch(3, "no memory for an observer", kSource);
    }
}

void TreflectObservable::unRegisterObserver(const TreflectObserverClient &observer) {
    remove(pre_, observer);
    remove(post_, observer);
}

void TreflectObservable::remove(const std::unique_ptr<Observers> &observers, const TreflectObserverClient &observer) {
    if (observers == nullptr) {
        return;
    }
    for (auto entry = observers->begin(); entry != observers->end();) {
        if (*entry->second == observer) {
            observers->erase(entry);
            entry = observers->begin();
        } else {
            ++entry;
        }
    }
}

bool TreflectObservable::available(const std::unique_ptr<Observers> &observers, const Key &key) {
    return observers != nullptr && observers->count(key) != 0;
}

bool TreflectObservable::preObserverAvailable(const unsigned &classCode, const unsigned &methodCode) const {
    return available(pre_, Key(classCode, methodCode));
}

bool TreflectObservable::postObserverAvailable(const unsigned &classCode, const unsigned &methodCode) const {
    return available(post_, Key(classCode, methodCode));
}

bool TreflectObservable::notifyObservers(const TreflectObject &source, unsigned when, const unsigned &classCode,
                                         const unsigned &methodCode, const TipprmiSequence<TipprmiAny> &parameters) {
    const std::unique_ptr<Observers> &observers = when == 0 ? pre_ : post_;
    if (observers == nullptr) {
        return true;
    }
    bool result = true;
    std::list<std::shared_ptr<const TreflectObserverClient>> clients; // observers may come and go meanwhile
    try {
        const auto range = observers->equal_range(Key(classCode, methodCode));
        for (auto entry = range.first; entry != range.second; ++entry) {
            clients.push_back(entry->second);
        }
    } catch (const std::bad_alloc &) {
        LogDispatch(3, "no memory to tell all observers", kSource);
        result = when != 0; // those that are not asked may have forbidden it
    }
    // Outside of the above: what the application throws is not the library's. The unreachable ones stay in the list.
    for (auto client = clients.begin(); client != clients.end();) {
        bool delivered = false;
        const bool accepted = (*client)->notify(source, classCode, methodCode, parameters, delivered);
        result = result && (accepted || !delivered);
        client = delivered ? clients.erase(client) : std::next(client);
    }
    for (const auto &client : clients) {
        unRegisterObserver(*client);
    }
    return result;
}
