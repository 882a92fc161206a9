#pragma once

#include "objects/REFLECT_serverObject.h"

#include <string>

/** A port that has no interface. Its attributes can be read, but for one, by the code of its method: that is refused as
 *  if the interface were gone, or kills the process. */
class ScriptedPort : public TreflectServerObject {
public:
    struct Faulty {
        unsigned mc = 0;
        bool fatal = false;
    };

    ScriptedPort(const std::string &path, const std::string &name, const Faulty &faulty);

    unsigned getServerClassId() const override;
    TipprmiSequence<unsigned> getServerClassIdSeq() const override;
    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

private:
    const Faulty faulty_;
};
