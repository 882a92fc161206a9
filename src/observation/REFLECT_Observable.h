#pragma once

#include "platform/Export.h"
#include "rmi/IPPRMI_sequence.h"

#include <map>
#include <memory>
#include <utility>

class TreflectObject;
class TreflectObserverClient;

/**
 * Part of an object whose methods can be observed: who wants to be told of which method, before or after it runs. Not
 * locked: with the run permission. A notification may block, as a call does; the object must live until it returns.
 */
class REFLECTORB_API TreflectObservable {
public:
    TreflectObservable();
    TreflectObservable(const TreflectObservable &) = delete;
    TreflectObservable &operator=(const TreflectObservable &) = delete;
    virtual ~TreflectObservable();

    /** `when` 0: before the method runs, else after it. Who registers twice is told twice. Copies the handle, which may
     *  block if that found nothing so far. Without memory a line in the log, and nothing else. */
    virtual void registerObserver(unsigned when, const unsigned &classCode, const unsigned &methodCode,
                                  const TreflectObserverClient &observer);
    /** Of all methods. The same observer is one with the same identifier, in whatever actor; one without identifier is
     *  like no other. */
    virtual void unRegisterObserver(const TreflectObserverClient &observer);
    /** Tells the observers of the method, in the order of their registration; those that cannot be reached are
     *  unregistered. False if one that was told said so, and before the method also if memory was too short to tell
     *  all. What detected() throws comes through. */
    virtual bool notifyObservers(const TreflectObject &source, unsigned when, const unsigned &classCode,
                                 const unsigned &methodCode, const TipprmiSequence<TipprmiAny> &parameters);

    bool preObserverAvailable(const unsigned &classCode, const unsigned &methodCode) const;
    bool postObserverAvailable(const unsigned &classCode, const unsigned &methodCode) const;

private:
    using Key = std::pair<unsigned, unsigned>; // class code, method code
    // Shared with the notifications under way: to copy a handle may block, and the observers may change meanwhile.
    using Observers = std::multimap<Key, std::shared_ptr<const TreflectObserverClient>>;

    static bool available(const std::unique_ptr<Observers> &observers, const Key &key);
    static void remove(const std::unique_ptr<Observers> &observers, const TreflectObserverClient &observer);

    std::unique_ptr<Observers> pre_; // from the first registration on
    std::unique_ptr<Observers> post_;
};
