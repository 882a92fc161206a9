#include "reflection/REFLECT_operation.h"

#include "objects/REFLECT_object.h"
#include "reflection/REFLECT_metaObject.h"

TreflectOperation::~TreflectOperation() = default;
TreflectErrorOperation::~TreflectErrorOperation() = default;

int TreflectOperation::call() const {
    if (isError()) {
        return error;
    }
    const unsigned cc = meta_->containingMetaObject()->id();
    const auto mc = static_cast<unsigned>(meta_->id());
    TipprmiStream request(TipprmiStream::kCallSize);
    TipprmiStream response(TipprmiStream::kCallSize);
    object_->prepareRequestStream_(true, cc, mc, request);
    object_->dispatch(true, cc, mc, request, response);
    return 0;
}

bool TreflectOperation::preObserve(TreflectObserver *observer) const {
    return observe(0, observer);
}

bool TreflectOperation::postObserve(TreflectObserver *observer) const {
    return observe(1, observer);
}

bool TreflectOperation::observe(unsigned when, TreflectObserver *observer) const {
    if (isError()) {
        return false;
    }
    object_->registerObserver(when, meta_, observer);
    return true;
}

void TreflectOperation::removeObserver(TreflectObserver *observer) const {
    if (!isError()) {
        object_->removeObserver(meta_, observer);
    }
}
