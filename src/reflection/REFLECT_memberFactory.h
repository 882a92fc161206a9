#pragma once

#include "platform/Export.h"

class TreflectAttribute;
class TreflectMetaAttribute;
class TreflectMetaOperation;
class TreflectObject;
class TreflectOperation;

template <class Handle>
struct TreflectMetaOf;
template <>
struct TreflectMetaOf<TreflectAttribute> {
    using type = TreflectMetaAttribute;
};
template <>
struct TreflectMetaOf<TreflectOperation> {
    using type = TreflectMetaOperation;
};

/** The part of a member's description that makes handles to that member of an object. */
template <class Handle>
class TreflectMemberFactory {
public:
    using Meta = typename TreflectMetaOf<Handle>::type;

    TreflectMemberFactory() = default;
    TreflectMemberFactory(const TreflectMemberFactory &) = delete;
    TreflectMemberFactory &operator=(const TreflectMemberFactory &) = delete;
    virtual ~TreflectMemberFactory() = default;

    /** A new handle each time, which goes with the object's handle. It is kept until then, so keep and use
     *  it again. The object's handle must not be null. Null if memory is short, and once the process has begun to
     *  exit. */
    Handle *getTied(const TreflectObject *object) const { return makeTied(static_cast<const Meta *>(this), object); }
    /** `meta` may be null: such a handle answers as the error handle does. */
    static Handle *makeTied(const Meta *meta, const TreflectObject *object);

private:
    class Tied;
};

extern template class REFLECTORB_API TreflectMemberFactory<TreflectAttribute>;
extern template class REFLECTORB_API TreflectMemberFactory<TreflectOperation>;
