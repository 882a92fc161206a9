#pragma once

#include "platform/IdInfo.h"

#include <new>
#include <string>

/** The actor's name for a report; empty rather than an exception if memory is short, since guards report, too. */
inline std::string reportedActor() noexcept {
    try {
        return Transport::IdInfo::getActor();
    } catch (const std::bad_alloc &) {
        return {};
    }
}
