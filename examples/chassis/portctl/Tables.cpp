// Commands that show many ports at once.

#include "Unit.h"
#include "threads/HandlerState.h"
#include "view/PortReader.h"
#include "view/Table.h"

#include <cstdio>
#include <set>

using View::Table;

namespace {

std::string text(const Counter64 &counter) {
    return std::to_string(counter.value);
}

std::string speedText(unsigned megabits) {
    return megabits == 0 ? "" : std::to_string(megabits) + " Mbit/s";
}

void put(const Table &table) {
    std::fputs(table.text().c_str(), stdout);
}

} // namespace

int tree(const Arguments &arguments) {
    if (!arguments.empty()) {
        return failUsage("tree takes no arguments");
    }
    const TreflectHandlerState state(true);
    TreflectObject root;
    if (const int problem = Unit::find(View::Path(), root)) {
        return problem;
    }
    Table table({{"PATH", Table::Align::left},
                 {"ADMIN", Table::Align::left},
                 {"OPER", Table::Align::left},
                 {"MTU", Table::Align::right},
                 {"ADDRESS", Table::Align::left},
                 {"SPEED", Table::Align::right}});
    unsigned slots = 0;
    unsigned ports = 0;
    table.add({View::pathText({})});
    for (const Unit::Named &slot : Unit::childrenOf(root)) {
        ++slots;
        table.add({View::pathText({slot.name})});
        for (const Unit::PortAt &at : Unit::portsBelow({slot.name}, slot.object)) {
            View::PortReader read(at.port);
            const std::vector<std::string> row{View::pathText(at.path), read(&Port::adminState),
                                               read(&Port::operState),  std::to_string(read(&Port::mtu)),
                                               read(&Port::macAddress), speedText(read(&Port::speed))};
            if (!read.failed()) {
                ++ports;
                table.add(row);
            }
        }
    }
    put(table);
    std::printf("%s in %s\n", View::counted(ports, "port").c_str(), View::counted(slots, "slot").c_str());
    return done;
}

int counters(const Arguments &arguments) {
    if (arguments.size() != 1) {
        return failUsage("counters takes one PATH: of a port, a slot, or /chassis");
    }
    const TreflectHandlerState state(true);
    View::Path path;
    TreflectObject object;
    if (const int problem = Unit::find(arguments[0], path, object)) {
        return problem;
    }
    const Table::Align right = Table::Align::right;
    Table table({{"PATH", Table::Align::left},
                 {"RX BYTES", right},
                 {"PACKETS", right},
                 {"ERRORS", right},
                 {"DROPS", right},
                 {"TX BYTES", right},
                 {"PACKETS", right},
                 {"ERRORS", right},
                 {"DROPS", right}});
    for (const Unit::PortAt &at : Unit::portsBelow(path, object)) {
        PortCounters all;
        Port::Raised raised;
        at.port.counters(all, &raised);
        if (raised.getExceptionType() != 0) {
            if (at.path == path) {
                return Unit::failGone(path);
            }
            continue;
        }
        table.add({View::pathText(at.path), text(all.rxBytes), text(all.rxPackets), text(all.rxErrors),
                   text(all.rxDrops), text(all.txBytes), text(all.txPackets), text(all.txErrors), text(all.txDrops)});
    }
    put(table);
    return done;
}
