#pragma once

#include "view/Event.h"

#include <map>
#include <string>

namespace View {

/**
 * What is there, put together from events in the order in which they are taken. Knows nothing of the library, and
 * stands whatever comes twice, late, or about what it has not heard of.
 */
class Picture {
public:
    struct Port {
        unsigned slot = 0;
        std::string name;
        std::string address;
        PortState state;
        std::chrono::system_clock::time_point since;
    };

    struct News {
        std::string text; // "slot 2  port eth1 deleted"; empty if the event brought nothing new
        unsigned slot = 0;
        std::string port; // empty: it is about all of them
    };

    News apply(const Event &event);

    const std::map<ObjectKey, Port> &ports() const noexcept { return ports_; }
    /** The ports as a table, by slot and name, and a line that counts. */
    std::string tree() const;

private:
    std::string brokerCame(const Event &event);
    std::string brokerGone(const Event &event);
    News portCame(const Event &event);
    News portDeleted(const Event &event);
    News portChanged(const Event &event);
    std::string actorOf(unsigned broker) const;

    std::map<ObjectKey, Port> ports_;
    std::map<unsigned, std::string> actors_; // by broker
};

/** "up", or "up/down" if the port does not do what it was told. */
std::string stateText(const PortState &state);
/** "12:34:56.789", local time. */
std::string timeText(std::chrono::system_clock::time_point time);

} // namespace View
