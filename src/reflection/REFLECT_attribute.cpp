#include "reflection/REFLECT_attribute.h"

#include "objects/REFLECT_object.h"
#include "platform/Immortal_p.h"
#include "reflection/REFLECT_metaObject.h"

#include <memory>
#include <new>

namespace {

// Other threads may be given them while the process ends.
Immortal<TreflectErrorAttribute> noAttribute(nullptr, nullptr);
Immortal<TreflectErrorOperation> noOperation(nullptr, nullptr);

} // namespace

TreflectErrorAttribute &TreflectAttribute::errorAttribute = noAttribute.object;
TreflectErrorOperation &TreflectAttribute::errorOperation = noOperation.object;

TreflectAttribute::~TreflectAttribute() {
    delete contained_;
}

TreflectErrorAttribute::~TreflectErrorAttribute() = default;

/** One that was registered without getter cannot be read. */
bool TreflectAttribute::isReadable() const noexcept {
    return !isError() && meta_->metaOperGet() != nullptr;
}

bool TreflectAttribute::hasElement(unsigned index) const noexcept {
    const int length = constLength();
    return length > 0 && index < static_cast<unsigned>(length);
}

int TreflectAttribute::constLength() const noexcept {
    return isError() ? 0 : meta_->constLength();
}

// The error handles are shared by all threads, so they stay as they are.

TreflectAttribute &TreflectAttribute::operator[](int index) noexcept {
    if (!error_) {
        index_ = index;
    }
    return *this;
}

void TreflectAttribute::setContainerType(TreflectAttributeType type) noexcept {
    if (!error_) {
        containerType_ = type;
    }
}

TreflectOperation *TreflectAttribute::operGet() {
    if (isError()) {
        return &errorOperation;
    }
    if (operGet_ == nullptr) {
        operGet_ = TreflectMemberFactory<TreflectOperation>::makeTied(meta_->metaOperGet(), object_);
    }
    return operGet_ != nullptr ? operGet_ : &errorOperation;
}

TreflectOperation *TreflectAttribute::operSet() {
    if (isError()) {
        return &errorOperation;
    }
    if (operSet_ == nullptr) {
        operSet_ = TreflectMemberFactory<TreflectOperation>::makeTied(meta_->metaOperSet(), object_);
    }
    return operSet_ != nullptr ? operSet_ : &errorOperation;
}

void TreflectAttribute::call(TipprmiStream &response) const {
    const unsigned cc = meta_->containingMetaObject()->id();
    const auto mc = static_cast<unsigned>(meta_->metaOperGet()->id());
    TipprmiStream request(TipprmiStream::kCallSize);
    object_->prepareRequestStream_(true, cc, mc, request);
    object_->dispatch(true, cc, mc, request, response);
    object_->prepareResponseStream_(true, response);
}

void TreflectAttribute::updateContainedObject() {
    if (isError() || meta_->typeMeta() == nullptr) {
        return;
    }
    if (contained_ != nullptr) {
        if (index_ != -1) {
            get(*contained_);
        }
        return;
    }
    // Kept once it has been read: a thread that is cancelled in the call would leave one that stands for nobody.
    std::unique_ptr<TreflectObject> first(new (std::nothrow) TreflectObject);
    if (first != nullptr) {
        get(*first);
        contained_ = first.release();
    }
}

TreflectAttribute *TreflectAttribute::attribute(const std::string &name) {
    if (isError()) {
        return this;
    }
    updateContainedObject();
    const TreflectMetaObject *const type = meta_->typeMeta();
    const TreflectMetaAttribute *const found = type != nullptr ? type->metaAttribute(name) : nullptr;
    TreflectAttribute *const tied = found != nullptr && contained_ != nullptr ? found->getTied(contained_) : nullptr;
    return tied != nullptr ? tied : &errorAttribute;
}

TreflectOperation *TreflectAttribute::operation(const std::string &name) {
    updateContainedObject();
    const TreflectMetaObject *const type = isError() ? nullptr : meta_->typeMeta();
    const TreflectMetaOperation *const found = type != nullptr ? type->metaOperation(name) : nullptr;
    TreflectOperation *const tied = found != nullptr && contained_ != nullptr ? found->getTied(contained_) : nullptr;
    return tied != nullptr ? tied : &errorOperation;
}

TreflectOperation *TreflectErrorAttribute::operation(const std::string &) {
    return &errorOperation;
}

TreflectAttribute *TreflectErrorAttribute::attribute(const std::string &) {
    return this;
}
