#pragma once

#include "rmi/IPPRMI_any.h"
#include "rmi/IPPRMI_sequence.h"
#include "rmi/StreamOperators.h"

#include <string>

/** What Port::stateChanged() tells. */
struct PortState {
    std::string adminState; // "up", "down"
    std::string operState;  // "up", "down", "unknown", "dormant", "testing", "lowerlayerdown", "notpresent"
    unsigned mtu = 0;       // bytes

    bool operator==(const PortState &other) const {
        return adminState == other.adminState && operState == other.operState && mtu == other.mtu;
    }
    bool operator!=(const PortState &other) const { return !(*this == other); }
};

/** For observers of the operation: takes the arguments from what getsvalue()->parameters has. False if there are too
 *  few. */
inline bool stateFrom(TipprmiSequence<TipprmiAny> &parameters, PortState &state) {
    if (parameters.getLength() < 4) { // the first is the place of the result
        return false;
    }
    parameters[1].extract(state.adminState);
    parameters[2].extract(state.operState);
    parameters[3].extract(state.mtu);
    return true;
}
