#pragma once

#include "platform/Export.h"
#include "platform/Mutex.h"
#include "platform/SmartPointer.h"
#include "platform/ThreadAnnotations.h"
#include "reflection/Singleton.h"

#include <cstddef>
#include <map>

class TreflectObject;

/** The attribute and operation handles that were made for the handles of objects, each under that handle, with which
 *  they go. One for the process, from first use to its exit. */
class REFLECTORB_API TreflectTieds {
public:
    class REFLECTORB_API TiedBase {
    public:
        TiedBase() = default;
        TiedBase(const TiedBase &) = delete;
        TiedBase &operator=(const TiedBase &) = delete;
        virtual ~TiedBase();
    };

    /** Null once the process has begun to exit, and without memory. */
    static TreflectTieds *instance();

    TreflectTieds() = default;
    ~TreflectTieds();
    TreflectTieds(const TreflectTieds &) = delete;
    TreflectTieds &operator=(const TreflectTieds &) = delete;

    /** False without memory. */
    bool adoptTied(const TreflectObject *object, const OSWrap::SmartPointer<TiedBase> &tied);
    /** Those of an object's handle. */
    void destroyTieds(const TreflectObject *object);
    /** Their number, in a line of the log. */
    void print() const;

private:
    using Tieds = std::multimap<const TreflectObject *, OSWrap::SmartPointer<TiedBase>>;

    mutable OSWrap::Mutex lock_;
    Tieds tieds_ RB_GUARDED_BY(lock_);
};

extern template class REFLECTORB_API Afw::Singleton<TreflectTieds>;
