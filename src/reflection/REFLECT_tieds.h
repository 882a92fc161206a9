#pragma once

#include "platform/Export.h"
#include "platform/SmartPointer.h"
#include "reflection/Singleton.h"

class TreflectObject;

/**
 * The attribute and operation handles that were made for the handles of objects, each under that handle, with which
 * they go. One for the process, from first use to its exit. At exit those that are left are destroyed, unless there are
 * other threads that have called objects and may still use them.
 */
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

    // From every thread. Static, as handles of objects are destroyed until the last moment of the process, whoever ends
    // it.

    /** False without memory, and once the process has begun to exit. */
    static bool adoptTied(const TreflectObject *object, const OSWrap::SmartPointer<TiedBase> &tied);
    /** Those of an object's handle. */
    static void destroyTieds(const TreflectObject *object);
    /** Their number, in a line of the log at level 5. */
    static void print();

private:
    struct Registry;
};

extern template class REFLECTORB_API Afw::Singleton<TreflectTieds>;
