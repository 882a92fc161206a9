#pragma once

#include "PortState.h"

#include <chrono>
#include <string>
#include <utility>

namespace View {

/** Which object it is, as long as it lives: the broker that has it (its address), and its number there. */
using ObjectKey = std::pair<unsigned, unsigned>;

/** Something that happened in the unit. Which fields have a meaning depends on the kind. */
struct Event {
    enum class Kind {
        brokerCame,
        brokerGone,
        portFound, // was there before anybody looked
        portCreated,
        portDeleted,
        portChanged,
    };

    Kind kind = Kind::brokerCame;
    std::chrono::system_clock::time_point time;
    unsigned broker = 0; // address of the one that came, went, or has the object
    unsigned slot = 0;
    std::string actor; // brokerCame
    ObjectKey key;
    std::string name; // portFound, portCreated
    std::string address;
    PortState state;     // also portChanged; empty if the interface was gone before it could be asked
    bool lasting = true; // portFound, portCreated: its deletion is still to be told
};

} // namespace View
