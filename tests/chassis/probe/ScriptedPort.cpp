#include "ScriptedPort.h"

#include "Paths.h"
#include "Port.h"

#include <cerrno>
#include <csignal>

ScriptedPort::ScriptedPort(const std::string &path, const std::string &name, const Faulty &faulty)
    : TreflectServerObject(Paths::id(path), nullptr, name), faulty_(faulty) {}

unsigned ScriptedPort::getServerClassId() const {
    return Port::CLASS_ID;
}

TipprmiSequence<unsigned> ScriptedPort::getServerClassIdSeq() const {
    TipprmiSequence<unsigned> ids;
    ids.push_back(Port::CLASS_ID);
    return ids;
}

bool ScriptedPort::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                            TipprmiStream &response) {
    if (cc != Port::CLASS_ID || mc > Port::mcStateChanged) {
        return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
    }
    if (mc == faulty_.mc && faulty_.fatal) {
        ::raise(SIGKILL);
    }
    TipprmiExceptionContainer raised;
    if (mc == faulty_.mc) {
        raised.raise(PortRefused{ENODEV, "No such device"});
    }
    response << raised;
    switch (mc) {
    case Port::mcGetname:
    case Port::mcGetmacAddress:
        response << std::string(objectName());
        break;
    case Port::mcGetadminState:
    case Port::mcGetoperState:
        response << std::string("up");
        break;
    default:
        response << 1500U;
    }
    return true;
}
