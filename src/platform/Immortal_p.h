#pragma once

#include <utility>

/**
 * A static object that is ready before main(), if T's constructor is constexpr, and is never destroyed: threads go on
 * while a process ends, and constructors and destructors of other static objects may meet it.
 */
template <typename T>
union Immortal {
    template <typename... Arguments>
    constexpr explicit Immortal(Arguments &&...arguments) : object(std::forward<Arguments>(arguments)...) {}
    ~Immortal() {} // NOLINT: with "= default" there would be none

    T object;
};
