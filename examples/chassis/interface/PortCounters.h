#pragma once

#include "Counter64.h"

/** All counters of an interface at one instant. */
struct PortCounters {
    Counter64 rxBytes;
    Counter64 txBytes;
    Counter64 rxPackets;
    Counter64 txPackets;
    Counter64 rxErrors;
    Counter64 txErrors;
    Counter64 rxDrops;
    Counter64 txDrops;
};

inline TipprmiStream &operator<<(TipprmiStream &stream, const PortCounters &counters) {
    return stream << counters.rxBytes << counters.txBytes << counters.rxPackets << counters.txPackets
                  << counters.rxErrors << counters.txErrors << counters.rxDrops << counters.txDrops;
}

inline TipprmiStream &operator>>(TipprmiStream &stream, PortCounters &counters) {
    return stream >> counters.rxBytes >> counters.txBytes >> counters.rxPackets >> counters.txPackets >>
           counters.rxErrors >> counters.txErrors >> counters.rxDrops >> counters.txDrops;
}
