#pragma once

#include <boost/shared_ptr.hpp>
#include <new>

namespace OSWrap {

/** Shared, counted ownership. The last copy deletes the object with the type it was made of, in whatever thread.
 * Without memory for the count the object is deleted at once and the pointer is null. */
template <class T>
class SmartPointer {
public:
    SmartPointer() noexcept = default;
    template <class U>
    explicit SmartPointer(U *object) noexcept {
        try {
            pointer_.reset(object);
        } catch (const std::bad_alloc &) {
        }
    }
    template <class U>
    SmartPointer(const SmartPointer<U> &other) noexcept : pointer_(other.pointer_) {}

    T *get() const noexcept { return pointer_.get(); }
    T *operator->() const noexcept { return pointer_.get(); }
    T &operator*() const noexcept { return *pointer_; }
    explicit operator bool() const noexcept { return pointer_.get() != nullptr; }

private:
    template <class U>
    friend class SmartPointer;
    boost::shared_ptr<T> pointer_;
};

} // namespace OSWrap
