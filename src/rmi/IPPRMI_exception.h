#pragma once

#include "platform/Export.h"
#include "rmi/IPPRMI_any.h"
#include "rmi/StreamOperators.h"

/** The exception of the broker itself: a code. Its exception type is 1. */
class REFLECTORB_API TipprmiGeneralException {
public:
    explicit constexpr TipprmiGeneralException(unsigned code = 0) noexcept : code_(code) {}
    static constexpr unsigned getExceptionClassType() noexcept { return 1; }
    constexpr unsigned getCode() const noexcept { return code_; }

private:
    unsigned code_;
};

/** Heads every response: the type of the exception that the call ended with (0: none) and its data. */
class REFLECTORB_API TipprmiExceptionContainer {
public:
    unsigned getExceptionType() const noexcept { return type_; }
    void setExceptionType(unsigned type) noexcept { type_ = type; }

    template <class T>
    void setExceptionData(const T &exception) {
        data_.insert(exception);
    }
    template <class T>
    void getExceptionData(T &exception) {
        data_.extract(exception);
    }

    /** Type and data of an exception. */
    template <class T>
    void raise(const T &exception) {
        setExceptionType(T::getExceptionClassType());
        setExceptionData(exception);
    }
    /** Whether it is an exception of this class, and all of it has arrived; then it is in `exception`. */
    template <class T>
    bool holds(T &exception) {
        if (type_ != T::getExceptionClassType()) {
            return false;
        }
        getExceptionData(exception);
        return !data_.hasUnmarshallingFailed();
    }

    friend REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiExceptionContainer &container);
    friend REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TipprmiExceptionContainer &container);

private:
    unsigned type_ = 0;
    TipprmiAny data_;
};

/** The code in 4 bytes. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiGeneralException &exception);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TipprmiGeneralException &exception);

/** The type in 4 bytes, then the data as a nested stream. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiExceptionContainer &container);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TipprmiExceptionContainer &container);
