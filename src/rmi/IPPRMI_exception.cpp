#include "rmi/IPPRMI_exception.h"

TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiGeneralException &exception) {
    return stream << exception.getCode();
}

TipprmiStream &operator>>(TipprmiStream &stream, TipprmiGeneralException &exception) {
    unsigned code = 0;
    stream >> code;
    exception = TipprmiGeneralException(code);
    return stream;
}

TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiExceptionContainer &container) {
    return stream << container.type_ << container.data_;
}

TipprmiStream &operator>>(TipprmiStream &stream, TipprmiExceptionContainer &container) {
    return stream >> container.type_ >> container.data_;
}
