#pragma once

#include "platform/ConditionVar.h"
#include "rmi/IPPRMI_objectClient.h"
#include "rmi/IPPRMI_objectSkeleton.h"

#include <string>

/** NAME is of namespace 1, NAME@2 of namespace 2. */
TipprmiOID oidOf(const std::string &name);

/** An object for others to call. */
class Service : public TipprmiObjectSkeleton {
public:
    enum Method : unsigned {
        addOne = 1,  // number -> number + 1
        echo = 2,    // bytes -> the same
        hold = 3,    // answers when released
        refuse = 4,  // writes something, then says that it did not handle the call
        through = 5, // depth and two names: calls `through` of the second with the names swapped, until depth is 0
        note = 6,    // counts; for one-way calls
        leave = 7,   // ends the process with this status
        detour = 8,  // name: calls `leave` of that with 9
    };
    static constexpr unsigned kClass = 0x51;

    explicit Service(const std::string &name) : TipprmiObjectSkeleton(oidOf(name)) {}

    using TipprmiObjectSkeleton::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

    /** Lets the calls of `hold` end. */
    static void release();
    static unsigned noted();
};

/** One call of `addOne`; false if it failed, or the answer is wrong. With the run permission. */
bool callAddOne(const TipprmiObjectClient &client, unsigned number);
bool callEcho(const TipprmiObjectClient &client, unsigned size);
bool callHold(const TipprmiObjectClient &client);
bool callRefuse(const TipprmiObjectClient &client);
/** The depth that came back, or ~0. */
unsigned callThrough(const TipprmiObjectClient &client, unsigned depth, const std::string &own,
                     const std::string &other);
bool callNote(const TipprmiObjectClient &client);
bool callLeave(const TipprmiObjectClient &client, unsigned status);
bool callDetour(const TipprmiObjectClient &client, const std::string &other);
