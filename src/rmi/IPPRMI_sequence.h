#pragma once

#include "platform/Export.h"
#include "rmi/IPPRMI_any.h"
#include "rmi/StreamOperators.h"

#include <array>
#include <cstddef>
#include <exception>
#include <utility>
#include <vector>

/** The least bytes that an element takes on the wire; specialise it for larger ones. */
template <class T>
struct TipprmiLeastSize {
    static constexpr unsigned value = 4;
};
template <class T, std::size_t Length>
struct TipprmiLeastSize<std::array<T, Length>> {
    static constexpr unsigned value = static_cast<unsigned>(Length) * TipprmiLeastSize<T>::value;
};

/** A counted array. The bound is not used: all are unbounded. */
template <class T, unsigned Bound = 0U>
class TipprmiSequence {
public:
    TipprmiSequence() = default;
    // What copies elements is not noexcept: the copy of a handle may block, and its thread be cancelled there.
    /** Without memory for it a copy is empty. */
    TipprmiSequence(const TipprmiSequence &other) { copy(other); }
    TipprmiSequence(TipprmiSequence &&other) noexcept = default;
    TipprmiSequence &operator=(const TipprmiSequence &other) {
        if (this != &other) {
            copy(other);
        }
        return *this;
    }
    TipprmiSequence &operator=(TipprmiSequence &&other) noexcept = default;
    ~TipprmiSequence() = default;

    /** New elements are default-constructed. Without memory for them the length stays as it is. */
    void setLength(unsigned length) {
        try {
            elements_.resize(length);
        } catch (const std::exception &) {
            // The caller sees it by the length.
        }
    }
    unsigned getLength() const noexcept { return static_cast<unsigned>(elements_.size()); }
    /** Does nothing without memory for it. */
    void push_back(const T &element) {
        try {
            elements_.push_back(element);
        } catch (const std::exception &) {
            // The caller sees it by the length.
        }
    }

    /** Element 0 for every index beyond the length; of an empty sequence, an empty element that is nobody's. */
    T &operator[](unsigned index) { return elements_.empty() ? nobodys() : elements_[within(index)]; }
    const T &operator[](unsigned index) const { return elements_.empty() ? nobodys() : elements_[within(index)]; }

private:
    void copy(const TipprmiSequence &other) {
        try {
            elements_ = other.elements_;
        } catch (const std::exception &) {
            elements_.clear();
        }
    }
    unsigned within(unsigned index) const noexcept { return index < elements_.size() ? index : 0; }
    static T &nobodys() {
        static thread_local T element{};
        element = T();
        return element;
    }

    std::vector<T> elements_;
};

/** The count in 4 bytes, then the elements. */
template <class T, unsigned Bound>
TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiSequence<T, Bound> &sequence) {
    stream << sequence.getLength();
    for (unsigned i = 0; i < sequence.getLength(); ++i) {
        stream << sequence[i];
    }
    return stream;
}

/** A count that the data cannot hold is believed up to 65536 elements; beyond that, and without memory for them, the
 *  sequence is empty and the stream stopped. */
template <class T, unsigned Bound>
TipprmiStream &operator>>(TipprmiStream &stream, TipprmiSequence<T, Bound> &sequence) {
    unsigned count = 0;
    stream >> count;
    count = stream.admitCount(count, TipprmiLeastSize<T>::value);
    sequence.setLength(count);
    if (sequence.getLength() != count) { // no memory
        stream.stopUnmarshalling();
        sequence.setLength(0);
    }
    for (unsigned i = 0; i < sequence.getLength(); ++i) {
        T element{};
        stream >> element;
        sequence[i] = std::move(element);
    }
    return stream;
}

/** Called by generated code; does nothing. */
REFLECTORB_API void generateParamSeq(TipprmiSequence<TipprmiAny, 0U> &parameters);
