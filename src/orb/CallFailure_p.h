#pragma once

#include "rmi/IPPRMI_exception.h"

/** What a caller reads when its call could not be made or handled: an exception of type 1 with code 0. */
inline void writeCallFailure(TipprmiStream &response) {
    TipprmiExceptionContainer failure;
    failure.setExceptionType(TipprmiGeneralException::getExceptionClassType());
    failure.setExceptionData(TipprmiGeneralException(0));
    response << failure;
}
