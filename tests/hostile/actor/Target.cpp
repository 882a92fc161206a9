#include "Target.h"

#include "orb/REFLECT_orb.h"
#include "rmi/IPPRMI_exception.h"
#include "rmi/StreamOperators.h"

namespace {

void readAddOne(TipprmiStream &request, TipprmiStream &response) {
    unsigned number = 0;
    request >> number;
    response << number + 1;
}

void readEcho(TipprmiStream &request, TipprmiStream &response) {
    std::string text;
    request >> text;
    response << text;
}

void readAll(TipprmiStream &request, TipprmiStream &) {
    int number = 0;
    bool flag = false;
    std::string text;
    char *characters = nullptr;
    TipprmiStream nested(1);
    TipprmiAny any;
    Transport::TerminationId termination;
    TipprmiOID oid(nullptr, NamespaceId(1));
    TipprmiSequence<unsigned> numbers;
    TipprmiSequence<TipprmiAny> values;
    TipprmiExceptionContainer container;
    TreflectORB::TreflectObjectLocation location(oid);
    request >> number >> flag >> text >> characters >> nested >> any >> termination >> oid >> numbers >> values >>
        container >> location;
    delete[] characters;
    for (unsigned i = 0; i < values.getLength(); ++i) {
        TipprmiGeneralException exception;
        values[i].extract(exception);
    }
    TipprmiGeneralException exception;
    container.getExceptionData(exception);
}

} // namespace

bool Target::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
    ++calls()[getInternalOID()];
    using Handler = void (*)(TipprmiStream &, TipprmiStream &);
    static constexpr Handler kHandlers[] = {nullptr, &readAddOne, &readEcho, &readAll};
    if (cc != kClass || mc == 0 || mc >= sizeof kHandlers / sizeof kHandlers[0]) {
        return TipprmiObjectSkeleton::dispatch(transaction, cc, mc, request, response);
    }
    prepareResponseStream_(response);
    kHandlers[mc](request, response);
    if (request.hasUnmarshallingFailed()) {
        request.printUnmarshallError(cc, mc);
        return false;
    }
    return true;
}

std::map<unsigned, unsigned> &Target::calls() {
    static auto &instance = *new std::map<unsigned, unsigned>; // in use until the very end of the process
    return instance;
}
