#pragma once

#include "objects/REFLECT_serverObject.h"
#include "support/BrokerTest.h"
#include "support/ReflectiveClasses.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Testing {

/** Says that it is a Port, answers calls of that as a test wants, and writes them down. */
class ScriptedObject : public TreflectServerObject {
public:
    using Answer = std::function<bool(TipprmiStream &response)>;
    struct Call {
        bool transaction;
        unsigned cc;
        unsigned mc;
        std::string arguments; // in hexadecimal

        bool operator==(const Call &other) const {
            return transaction == other.transaction && cc == other.cc && mc == other.mc && arguments == other.arguments;
        }
    };

    explicit ScriptedObject(const char *oid, Answer script = {})
        : TreflectServerObject(TipprmiOID(oid, NamespaceId(1)), nullptr, ""), answer(std::move(script)) {}

    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                  TipprmiStream &response) override {
        if (mc >= 1000) {
            return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
        }
        calls.push_back({transaction, cc, mc, hex(request)});
        return !answer || answer(response);
    }
    unsigned getServerClassId() const override { return Port::CLASS_ID; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(Port::CLASS_ID);
        return ids;
    }

    Answer answer;
    std::vector<Call> calls;
};

/** The beginning of every answer: no exception. */
inline TipprmiStream &answered(TipprmiStream &response) {
    return response << 0U << std::string();
}

} // namespace Testing
