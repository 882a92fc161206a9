#pragma once

#include "platform/Export.h"
#include "rmi/IPPRMI_stream.h"

/** One marshalled value of any type; the reader must know which. A stream, written as a nested one. */
class REFLECTORB_API TipprmiAny : public TipprmiStream {
public:
    static constexpr int kDefaultCapacity = 100;

    /** Costs no memory until it is written: messages may announce many. */
    TipprmiAny() noexcept : TipprmiStream(Reserve{kDefaultCapacity}) {}

    template <class T>
    void insert(const T &value) {
        clear();
        *this << value;
    }

    /** From the first byte on, so it can be repeated. Extracting from an empty Any stops it until the next insert(). */
    template <class T>
    void extract(T &value) {
        rewind();
        *this >> value;
    }
};
