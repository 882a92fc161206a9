#include "threads/ReleaseHook_p.h"

namespace {

// Trivial, and found without a call: it is looked at in every release.
struct Hook {
    ReleaseHook::Function function;
    void *argument;
};
__attribute__((tls_model("initial-exec"))) thread_local Hook own;

} // namespace

void ReleaseHook::set(Function function, void *argument) noexcept {
    own = {function, argument};
}

bool ReleaseHook::isSet() noexcept {
    return own.function != nullptr;
}

bool ReleaseHook::clear() noexcept {
    const bool was = isSet();
    own.function = nullptr;
    return was;
}

void ReleaseHook::run() {
    if (const Function function = own.function) {
        own.function = nullptr;
        function(own.argument);
    }
}
