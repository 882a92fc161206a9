#include "PortRefused.h"

#include "rmi/StreamOperators.h"

TipprmiStream &operator<<(TipprmiStream &stream, const PortRefused &refused) {
    return stream << refused.code << refused.reason;
}

TipprmiStream &operator>>(TipprmiStream &stream, PortRefused &refused) {
    return stream >> refused.code >> refused.reason;
}

void raise(TipprmiExceptionContainer &raised, const PortRefused &refused) {
    raised.setExceptionType(PortRefused::getExceptionClassType());
    raised.setExceptionData(refused);
}

bool caught(TipprmiExceptionContainer &raised, PortRefused &refused) {
    if (raised.getExceptionType() != PortRefused::getExceptionClassType()) {
        return false;
    }
    raised.getExceptionData(refused);
    return true;
}
