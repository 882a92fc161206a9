#include "support/HeapProbe.h"

#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TESTING_SANITIZED_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TESTING_SANITIZED_HEAP 1
#endif
#endif

// The C library allocates before a sanitizer is ready for instrumented code.
#if defined(__clang__)
#define TESTING_BARE __attribute__((disable_sanitizer_instrumentation))
#else
#define TESTING_BARE __attribute__((no_sanitize("thread"), no_sanitize("address"), no_sanitize("undefined")))
#endif

extern "C" {
#if defined(TESTING_SANITIZED_HEAP)
void *__interceptor_calloc(std::size_t count, std::size_t size);
#else
void *__libc_calloc(std::size_t count, std::size_t size);
#endif
}

namespace Testing {

namespace {

// Plain numbers: ready in every thread before its first allocation, without one of their own.
thread_local std::size_t taken = 0;
thread_local unsigned scopes = 0;
thread_local unsigned allowed = 0;
thread_local bool throwingFails = false;

TESTING_BARE bool refused() noexcept {
    if (scopes == 0) {
        return false;
    }
    if (allowed > 0) {
        --allowed;
        return false;
    }
    return true;
}

TESTING_BARE void *take(std::size_t size) noexcept {
    ++taken;
    return std::malloc(size != 0 ? size : 1);
}

TESTING_BARE void *takeOrThrow(std::size_t size) {
    void *const memory = throwingFails && refused() ? nullptr : take(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

TESTING_BARE void *takeOrNull(std::size_t size) noexcept {
    return refused() ? nullptr : take(size);
}

} // namespace

HeapProbe::HeapProbe() noexcept : before_(taken) {}

std::size_t HeapProbe::allocations() const noexcept {
    return taken - before_;
}

FailingHeap::FailingHeap(unsigned allowedCalls, Calls calls) noexcept {
    ++scopes;
    allowed = allowedCalls;
    throwingFails = calls == Calls::all;
}

FailingHeap::~FailingHeap() {
    --scopes;
    throwingFails = false;
}

} // namespace Testing

extern "C" TESTING_BARE void *calloc(std::size_t count, std::size_t size) {
    if (Testing::refused()) {
        return nullptr;
    }
    ++Testing::taken;
#if defined(TESTING_SANITIZED_HEAP)
    return __interceptor_calloc(count, size);
#else
    return __libc_calloc(count, size);
#endif
}

void *operator new(std::size_t size) {
    return Testing::takeOrThrow(size);
}
void *operator new[](std::size_t size) {
    return Testing::takeOrThrow(size);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return Testing::takeOrNull(size);
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return Testing::takeOrNull(size);
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
