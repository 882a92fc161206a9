#pragma once

#include <cstddef>

namespace Testing {

/** Counts what the calling thread takes from the heap during the scope: by new, and by calloc (message buffers). */
class HeapProbe {
public:
    HeapProbe() noexcept;
    std::size_t allocations() const noexcept;

private:
    const std::size_t before_;
};

/** Whether what the standard library takes, such as the growth of a string, is counted and fails as well. Under the
 *  thread sanitizer only calls that are compiled into the test program are. */
#if defined(__SANITIZE_THREAD__)
constexpr bool kLibraryHeapIsProbed = false;
#elif defined(__has_feature)
constexpr bool kLibraryHeapIsProbed = !__has_feature(thread_sanitizer);
#else
constexpr bool kLibraryHeapIsProbed = true;
#endif

/**
 * No memory for the calling thread during the scope: nothrow new and calloc give null. With `Calls::all`, plain new
 * throws as well; log lines cannot be captured then.
 */
class FailingHeap {
public:
    enum class Calls { nonThrowing, all };

    /** The first `allowed` of these calls still succeed, then `refused` fail, after which there is memory again. */
    explicit FailingHeap(unsigned allowed = 0, Calls calls = Calls::nonThrowing, unsigned refused = ~0U) noexcept;
    ~FailingHeap();
    FailingHeap(const FailingHeap &) = delete;
    FailingHeap &operator=(const FailingHeap &) = delete;
};

/** There is memory again for the scope, inside a FailingHeap: for what a test does in between, or plays for others. */
class WorkingHeap {
public:
    WorkingHeap() noexcept;
    ~WorkingHeap();
    WorkingHeap(const WorkingHeap &) = delete;
    WorkingHeap &operator=(const WorkingHeap &) = delete;

private:
    const unsigned scopes_;
};

} // namespace Testing
