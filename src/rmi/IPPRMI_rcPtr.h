#pragma once

#include "platform/Export.h"

#include <atomic>
#include <new>
#include <utility>

/**
 * Base of values that several pointers share. The count is atomic, so pointers to one value may be copied and dropped
 * in different threads. When the last pointer lets go the value deletes itself: it must come from plain new.
 */
class REFLECTORB_API TipprmiRCObject {
public:
    virtual ~TipprmiRCObject();
    void addReference() noexcept { count_.fetch_add(1, std::memory_order_relaxed); }
    void removeReference();
    bool isShareable() const noexcept { return shareable_; }
    int referenceCount() const noexcept { return count_.load(std::memory_order_relaxed); }

protected:
    TipprmiRCObject() noexcept = default;
    /** A copy has no pointers yet and may be shared, whatever the original. */
    TipprmiRCObject(const TipprmiRCObject &) noexcept {}
    TipprmiRCObject &operator=(const TipprmiRCObject &) noexcept { return *this; }
    /** Pointers that take the value from now on make a copy of their own. */
    void markUnshareable() noexcept { shareable_ = false; }

private:
    std::atomic<int> count_{0};
    bool shareable_ = true;
};

/** A pointer that shares its value with others; T derives from TipprmiRCObject and can be copied. */
template <class T>
class TipprmiRCPtr {
public:
    TipprmiRCPtr(T *value = nullptr) : value_(value) { init(); }
    TipprmiRCPtr(const TipprmiRCPtr &other) : value_(other.value_) { init(); }
    TipprmiRCPtr(TipprmiRCPtr &&other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
    ~TipprmiRCPtr() { release(value_); }

    TipprmiRCPtr &operator=(const TipprmiRCPtr &other) {
        if (value_ != other.value_) {
            T *const old = std::exchange(value_, other.value_);
            init();
            release(old); // last: the old value may be what keeps `other` alive
        }
        return *this;
    }
    TipprmiRCPtr &operator=(TipprmiRCPtr &&other) noexcept {
        std::swap(value_, other.value_);
        return *this;
    }

    T &operator*() const noexcept { return *value_; }
    T *operator->() const noexcept { return value_; }
    T *get() const noexcept { return value_; }
    explicit operator bool() const noexcept { return value_ != nullptr; }

    /** Takes part in the value: in a copy of it, if it may not be shared; in none, if there is no memory for the copy.
     */
    void init() {
        if (value_ != nullptr && !value_->isShareable()) {
            value_ = new (std::nothrow) T(*value_);
        }
        if (value_ != nullptr) {
            value_->addReference();
        }
    }

private:
    static void release(T *value) {
        if (value != nullptr) {
            value->removeReference();
        }
    }

    T *value_;
};
