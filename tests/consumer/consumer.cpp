#include "orb/REFLECT_orb.h"
#include "platform/OSWrap.h"
#include "platform/Transport.h"
#include "platform/UnitFigures.h"
#include "rmi/IPPRMI_exception.h"
#include "rmi/IPPRMI_oid.h"
#include "rmi/IPPRMI_sequence.h"
#include "rmi/IPPRMI_stream.h"
#include "threads/BrokerLocks.h"
#include "threads/HTUtil.h"
#include "threads/HandlerState.h"
#include "threads/PosixMutexLocker.h"
#include "threads/ThreadSpecificGuard.h"

#include <cstdio>
#include <string>

/** Makes its broker, marshals an identifier there and back, and says so. */
int main() {
    const TreflectORB *orb = TreflectORB::getInstance(1);
    if (orb == nullptr || orb->orbId().namespaceId() != 1) {
        return 1;
    }
    const TreflectHandlerState handler(true);
    TipprmiStream stream(16);
    stream << TipprmiOID("port", NamespaceId(1)) << std::string("up");
    TipprmiOID id(nullptr, NamespaceId(1));
    std::string state;
    stream >> id >> state;
    if (!(id == TipprmiOID("port", NamespaceId(1))) || state != "up") {
        return 2;
    }
    std::printf("broker 0x%X works\n", orb->orbId().value());
    return 0;
}
