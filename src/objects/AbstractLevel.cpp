#include "objects/AbstractLevel_p.h"

#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_ObserverSkeleton.h"

#include <typeinfo>

bool isAbstractLevel(const TreflectServerObject &object) noexcept {
    return typeid(object) == typeid(TreflectServerObject) || typeid(object) == typeid(TreflectObserverSkeleton);
}

TipprmiSequence<unsigned> classIdsOf(const TreflectServerObject &object) {
    return isAbstractLevel(object) ? TipprmiSequence<unsigned>() : object.getServerClassIdSeq();
}
