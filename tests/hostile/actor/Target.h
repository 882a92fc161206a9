#pragma once

#include "rmi/IPPRMI_objectSkeleton.h"

#include <map>
#include <string>

/** An object that counts how often it is called, whatever the call is. */
class Target : public TipprmiObjectSkeleton {
public:
    enum Method : unsigned {
        addOne = 1, // number -> number + 1
        echo = 2,   // string -> the same
        read = 3,   // one value of every type that streams know; -> nothing
    };
    static constexpr unsigned kClass = 0x7A;

    explicit Target(const std::string &name) : TipprmiObjectSkeleton(TipprmiOID(name, NamespaceId(1))) {}

    using TipprmiObjectSkeleton::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

    /** By number of the object; with the run permission, as all calls. */
    static std::map<unsigned, unsigned> &calls();
};
