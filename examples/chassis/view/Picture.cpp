#include "view/Picture.h"

#include "view/Path.h"
#include "view/Table.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <set>
#include <tuple>
#include <vector>

namespace View {

namespace {

constexpr std::size_t kNamesTold = 6;

std::string inSlot(unsigned slot) {
    return "slot " + std::to_string(slot) + "  ";
}

std::string hex(unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", value);
    return text;
}

std::string describe(const PortState &state, const std::string &address) {
    if (state.adminState.empty()) {
        return "gone before it could be asked";
    }
    return stateText(state) + ", mtu " + std::to_string(state.mtu) + (address.empty() ? "" : ", " + address);
}

std::string differences(const PortState &before, const PortState &now) {
    std::vector<std::string> parts;
    const auto compare = [&parts](const char *what, const std::string &from, const std::string &to) {
        if (from != to) {
            parts.push_back(what + (" " + from) + " -> " + to);
        }
    };
    compare("admin", before.adminState, now.adminState);
    compare("oper", before.operState, now.operState);
    compare("mtu", std::to_string(before.mtu), std::to_string(now.mtu));
    return joined(parts);
}

} // namespace

std::string stateText(const PortState &state) {
    return state.adminState == state.operState ? state.adminState : state.adminState + "/" + state.operState;
}

std::string timeText(std::chrono::system_clock::time_point time) {
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    const auto seconds = static_cast<std::time_t>(sinceEpoch / 1000);
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    char clock[16];
    std::strftime(clock, sizeof clock, "%H:%M:%S", &parts);
    char text[32];
    std::snprintf(text, sizeof text, "%s.%03d", clock, static_cast<int>(sinceEpoch % 1000));
    return text;
}

Picture::News Picture::apply(const Event &event) {
    switch (event.kind) {
    case Event::Kind::brokerCame:
        return {brokerCame(event), event.slot, ""};
    case Event::Kind::brokerGone:
        return {brokerGone(event), event.slot, ""};
    case Event::Kind::portFound:
    case Event::Kind::portCreated:
        return portCame(event);
    case Event::Kind::portDeleted:
        return portDeleted(event);
    case Event::Kind::portChanged:
        return portChanged(event);
    }
    return {};
}

std::string Picture::brokerCame(const Event &event) {
    if (!actors_.emplace(event.broker, event.actor).second) {
        return "";
    }
    return inSlot(event.slot) + "actor " + actorOf(event.broker) + " is there";
}

std::string Picture::brokerGone(const Event &event) {
    std::vector<std::string> lost;
    for (auto port = ports_.begin(); port != ports_.end();) {
        if (port->first.first == event.broker) {
            lost.push_back(port->second.name);
            port = ports_.erase(port);
        } else {
            ++port;
        }
    }
    if (actors_.count(event.broker) == 0 && lost.empty()) {
        return "";
    }
    std::string line = inSlot(event.slot) + "actor " + actorOf(event.broker) + " is gone";
    actors_.erase(event.broker);
    if (!lost.empty()) {
        std::sort(lost.begin(), lost.end());
        const std::size_t count = lost.size();
        lost.resize(std::min(count, kNamesTold));
        line += ", and with it " + counted(count, "port") + ": " + joined(lost) + (count > kNamesTold ? ", ..." : "");
    }
    return line;
}

Picture::News Picture::portCame(const Event &event) {
    if (ports_.count(event.key) != 0 || !event.lasting) {
        return {}; // told of as existing and as created; on its way out
    }
    ports_.emplace(event.key, Port{event.slot, event.name, event.address, event.state, event.time});
    const std::string how = event.kind == Event::Kind::portFound ? " found: " : " created: ";
    return {inSlot(event.slot) + "port " + printable(event.name) + how + describe(event.state, event.address),
            event.slot, event.name};
}

Picture::News Picture::portDeleted(const Event &event) {
    const auto port = ports_.find(event.key);
    if (port == ports_.end()) {
        return {};
    }
    const std::string name = port->second.name;
    ports_.erase(port);
    return {inSlot(event.slot) + "port " + printable(name) + " deleted", event.slot, name};
}

Picture::News Picture::portChanged(const Event &event) {
    const auto port = ports_.find(event.key);
    if (port == ports_.end() || port->second.state == event.state) {
        return {};
    }
    Port &known = port->second;
    const std::string what = differences(known.state, event.state);
    known.state = event.state;
    return {inSlot(event.slot) + "port " + printable(known.name) + " changed: " + what, event.slot, known.name};
}

std::string Picture::actorOf(unsigned broker) const {
    const auto actor = actors_.find(broker);
    const bool known = actor != actors_.end() && !actor->second.empty();
    return (known ? printable(actor->second) + " " : "") + "(broker " + hex(broker) + ")";
}

std::string Picture::tree() const {
    std::vector<std::pair<ObjectKey, Port>> ports(ports_.begin(), ports_.end());
    std::sort(ports.begin(), ports.end(), [](const auto &a, const auto &b) {
        return std::tie(a.second.slot, a.second.name) < std::tie(b.second.slot, b.second.name);
    });
    Table table({{"SLOT", Table::Align::right},
                 {"PORT", Table::Align::left},
                 {"STATE", Table::Align::left},
                 {"MTU", Table::Align::right},
                 {"ADDRESS", Table::Align::left},
                 {"SINCE", Table::Align::left},
                 {"ACTOR", Table::Align::left}});
    std::set<unsigned> slots;
    for (const auto &[key, port] : ports) {
        slots.insert(port.slot);
        table.add({std::to_string(port.slot), printable(port.name), stateText(port.state),
                   std::to_string(port.state.mtu), port.address, timeText(port.since), actorOf(key.first)});
    }
    return table.text() + counted(ports.size(), "port") + " in " + counted(slots.size(), "slot") + "\n";
}

} // namespace View
