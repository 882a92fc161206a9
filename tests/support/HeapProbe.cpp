#include "support/HeapProbe.h"

#include <cstdlib>
#include <new>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#define TESTING_ADDRESS_SANITIZER 1
#elif defined(__SANITIZE_THREAD__)
#define TESTING_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TESTING_ADDRESS_SANITIZER 1
#elif __has_feature(thread_sanitizer)
#define TESTING_THREAD_SANITIZER 1
#endif
#endif

// The C library allocates before a sanitizer is ready for instrumented code.
#if defined(__clang__)
#define TESTING_BARE __attribute__((disable_sanitizer_instrumentation))
#else
#define TESTING_BARE __attribute__((no_sanitize("thread"), no_sanitize("address"), no_sanitize("undefined")))
#endif

namespace Testing {

namespace {

// Plain numbers: ready in every thread before its first allocation, without one of their own.
thread_local std::size_t taken = 0;
thread_local unsigned scopes = 0;
thread_local unsigned allowed = 0;
thread_local unsigned toRefuse = 0;
thread_local bool throwingFails = false;

TESTING_BARE bool refused() noexcept {
    if (scopes == 0) {
        return false;
    }
    if (allowed > 0) {
        --allowed;
        return false;
    }
    if (toRefuse == 0) {
        return false;
    }
    --toRefuse;
    return true;
}

/** True: counted, go on. */
TESTING_BARE bool admitted() noexcept {
    if (refused()) {
        return false;
    }
    ++taken;
    return true;
}

TESTING_BARE void admitOrThrow() {
    if (throwingFails && refused()) {
        throw std::bad_alloc();
    }
    ++taken;
}

} // namespace

HeapProbe::HeapProbe() noexcept : before_(taken) {}

std::size_t HeapProbe::allocations() const noexcept {
    return taken - before_;
}

FailingHeap::FailingHeap(unsigned allowedCalls, Calls calls, unsigned refused) noexcept {
    ++scopes;
    allowed = allowedCalls;
    toRefuse = refused;
    throwingFails = calls == Calls::all;
}

FailingHeap::~FailingHeap() {
    --scopes;
    throwingFails = false;
}

WorkingHeap::WorkingHeap() noexcept : scopes_(std::exchange(scopes, 0U)) {}

WorkingHeap::~WorkingHeap() {
    scopes = scopes_;
}

} // namespace Testing

#if defined(TESTING_THREAD_SANITIZER)

// Its runtime does not let these be replaced; the linker directs the calls of this program here (--wrap).
extern "C" {
void *__real_calloc(std::size_t count, std::size_t size);
void *__real__Znwm(std::size_t size);
void *__real__Znam(std::size_t size);
void *__real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t &tag) noexcept;
void *__real__ZnamRKSt9nothrow_t(std::size_t size, const std::nothrow_t &tag) noexcept;

void *__wrap_calloc(std::size_t count, std::size_t size) {
    return Testing::admitted() ? __real_calloc(count, size) : nullptr;
}
void *__wrap__Znwm(std::size_t size) {
    Testing::admitOrThrow();
    return __real__Znwm(size);
}
void *__wrap__Znam(std::size_t size) {
    Testing::admitOrThrow();
    return __real__Znam(size);
}
void *__wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t &tag) noexcept {
    return Testing::admitted() ? __real__ZnwmRKSt9nothrow_t(size, tag) : nullptr;
}
void *__wrap__ZnamRKSt9nothrow_t(std::size_t size, const std::nothrow_t &tag) noexcept {
    return Testing::admitted() ? __real__ZnamRKSt9nothrow_t(size, tag) : nullptr;
}
}

#else

#if defined(TESTING_ADDRESS_SANITIZER)
#define TESTING_REAL_CALLOC __interceptor_calloc
#else
#define TESTING_REAL_CALLOC __libc_calloc
#endif

extern "C" void *TESTING_REAL_CALLOC(std::size_t count, std::size_t size);
extern "C" TESTING_BARE void *calloc(std::size_t count, std::size_t size) {
    return Testing::admitted() ? TESTING_REAL_CALLOC(count, size) : nullptr;
}

namespace {

void *takeOrThrow(std::size_t size) {
    Testing::admitOrThrow();
    void *const memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void *takeOrNull(std::size_t size) noexcept {
    return Testing::admitted() ? std::malloc(size != 0 ? size : 1) : nullptr;
}

} // namespace

void *operator new(std::size_t size) {
    return takeOrThrow(size);
}
void *operator new[](std::size_t size) {
    return takeOrThrow(size);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return takeOrNull(size);
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return takeOrNull(size);
}
void operator delete(void *memory) noexcept {
    std::free(memory);
}
void operator delete[](void *memory) noexcept {
    std::free(memory);
}
void operator delete(void *memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void *memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void *memory, const std::nothrow_t &) noexcept {
    std::free(memory);
}
void operator delete[](void *memory, const std::nothrow_t &) noexcept {
    std::free(memory);
}

#endif
