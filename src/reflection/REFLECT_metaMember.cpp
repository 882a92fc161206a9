#include "reflection/REFLECT_metaMember.h"

#include "platform/Log.h"
#include "reflection/REFLECT_attribute.h"
#include "reflection/REFLECT_metaObject.h"

#include <new>

namespace {

constexpr char kSource[] = "REFLECT_metaObject";

TreflectAttribute *tiedAs(const TreflectMetaAttribute &meta, const TreflectObject *object,
                          TreflectAttribute::TreflectAttributeType type) {
    TreflectAttribute *const tied = meta.TreflectMemberFactory<TreflectAttribute>::getTied(object);
    if (tied != nullptr) {
        tied->setContainerType(type);
    }
    return tied;
}

} // namespace

TreflectMetaMember::~TreflectMetaMember() = default;
TreflectMetaOperation::~TreflectMetaOperation() = default;
TreflectMetaAttribute::~TreflectMetaAttribute() = default;
TreflectArrayMetaAttribute::~TreflectArrayMetaAttribute() = default;
TreflectSequenceMetaAttribute::~TreflectSequenceMetaAttribute() = default;

void TreflectMetaOperation::registerParameter(const std::string &name, const std::string &type) {
    try {
        parameters_[name] = type;
    } catch (const std::bad_alloc &) {
        LogDispatch(3, "no memory for a parameter of an operation", kSource);
    }
}

void TreflectMetaAttribute::registerType(TreflectMetaObject *type) {
    try {
        typeName_ = type->name();
        typeMeta_ = type;
    } catch (const std::bad_alloc &) {
        LogDispatch(3, "no memory for the type of an attribute", kSource);
    }
}

TreflectAttribute *TreflectArrayMetaAttribute::getTied(const TreflectObject *object) const {
    return tiedAs(*this, object, TreflectAttribute::array);
}

TreflectAttribute *TreflectSequenceMetaAttribute::getTied(const TreflectObject *object) const {
    return tiedAs(*this, object, TreflectAttribute::sequence);
}
