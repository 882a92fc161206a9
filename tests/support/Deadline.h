#pragma once

#include <chrono>

namespace Testing {

/** Milliseconds that are left, as poll() takes them. */
inline int leftUntil(std::chrono::steady_clock::time_point limit) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(limit - std::chrono::steady_clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

} // namespace Testing
