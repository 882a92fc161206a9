#include "reflection/REFLECT_memberFactory.h"

#include "reflection/REFLECT_attribute.h"
#include "reflection/REFLECT_metaMember.h"
#include "reflection/REFLECT_operation.h"
#include "reflection/REFLECT_tieds.h"

#include <new>

template <class Handle>
class TreflectMemberFactory<Handle>::Tied : public TreflectTieds::TiedBase {
public:
    Tied(const Meta *meta, const TreflectObject *object) : handle(meta, object) {}
    Handle handle;
};

template <class Handle>
Handle *TreflectMemberFactory<Handle>::makeTied(const Meta *meta, const TreflectObject *object) {
    auto *const tied = TreflectTieds::instance() != nullptr ? new (std::nothrow) Tied(meta, object) : nullptr;
    if (tied == nullptr) {
        return nullptr;
    }
    const OSWrap::SmartPointer<TreflectTieds::TiedBase> owner(tied);
    return owner && TreflectTieds::adoptTied(object, owner) ? &tied->handle : nullptr;
}

template class TreflectMemberFactory<TreflectAttribute>;
template class TreflectMemberFactory<TreflectOperation>;
