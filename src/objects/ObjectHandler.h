#pragma once

#include "objects/ObjectStubContainer.h"
#include "platform/Export.h"
#include "threads/HandlerState.h"

#include <atomic>
#include <map>

/**
 * Owns the stubs of the process: one for each location, counted, deleted with the last reference. Every operation takes
 * the run permission for its time, but gives it up while it looks a name up: what the caller knew before may not hold
 * any more. One object, made on first use and never destroyed.
 */
class REFLECTORB_API TreflectObjectHandler {
public:
    /** Stands for the absence of an object; in its own way a stub like others, so that it can travel in messages. */
    class TreflectObjectInvalidStub : public TreflectObjectStub {
    public:
        TreflectObjectInvalidStub() { setOID(TipprmiOID("InvalidStub", NamespaceId(1))); }
        ~TreflectObjectInvalidStub() override;
    };

    /** Null only if memory is short. */
    static TreflectObjectHandler *getInstance();
    /** Does not make it. */
    static TreflectObjectHandler *getExisting() noexcept { return instance_.load(std::memory_order_acquire); }

    TreflectObjectHandler(const TreflectObjectHandler &) = delete;
    TreflectObjectHandler &operator=(const TreflectObjectHandler &) = delete;

    /** Each gives one reference to the caller, which releaseStub() ends; null only if memory is short. The invalid stub
     *  for a name that is none. A name is looked up, which may block; so may an attempt to connect a stub that is not.
     */
    TreflectObjectStub *adoptStub(const TreflectORB *orb, const TipprmiOID &oid);
    TreflectObjectStub *adoptStub(const TipprmiOID &oid);
    TreflectObjectStub *adoptStub(const TreflectObjectLocationIf &location);
    TreflectObjectStub *adoptStub(TreflectObjectStub *stub);
    void releaseStub(TreflectObjectStub *stub);
    /** Those of a broker that is gone. */
    void invalidateStubs(const TreflectOrbId &orb);
    /** Those of an object of this process that is gone. */
    void invalidateStubs(const TipprmiObjectSkeleton *object);

    static bool isInvalidStub(const TreflectObjectStub &stub) noexcept;
    /** For changes of where a stub's object is, by which it is found: `change()` is called once. The stub that stands
     *  for nothing is not changed. */
    template <class Change>
    static void changeKey(TreflectObjectStub &stub, const Change &change) {
        if (isInvalidStub(stub)) {
            return; // all handles of nothing would become handles of something
        }
        const TreflectHandlerState state(true);
        TreflectObjectHandler *const handler = getExisting();
        if (handler == nullptr) {
            change();
            return;
        }
        forgetServer(stub);
        if (handler->stubs_.change(&stub, change) && !handler->rememberServer(&stub)) {
            stub.setServer(nullptr); // it would not be told when the object goes
        }
    }

private:
    friend void TreflectObjectStub::setInvalid() noexcept;

    TreflectObjectHandler();
    ~TreflectObjectHandler() = default;
    TreflectObjectStub *adopted(TreflectObjectStub *stub);
    void checkConnect(TreflectObjectStub *stub);
    TreflectObjectStub *findOrMake(const TreflectObjectLocationIf &location);
    bool rememberServer(TreflectObjectStub *stub);
    static void forgetServer(const TreflectObjectStub &stub) noexcept;

    static std::atomic<TreflectObjectHandler *> instance_;
    TreflectObjectStubContainer stubs_; // with the run permission
    TreflectObjectInvalidStub invalidStub_;
    /** Those in the container that stand for an object of this process: it need not search all when it goes. */
    std::multimap<const TipprmiObjectSkeleton *, TreflectObjectStub *> localStubs_;
};
