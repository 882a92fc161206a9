#include "PortRefused.h"

#include "rmi/StreamOperators.h"

TipprmiStream &operator<<(TipprmiStream &stream, const PortRefused &refused) {
    return stream << refused.code << refused.reason;
}

TipprmiStream &operator>>(TipprmiStream &stream, PortRefused &refused) {
    return stream >> refused.code >> refused.reason;
}
