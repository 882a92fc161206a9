#include "orb/REFLECT_orb.h"
#include "rmi/StreamOperators.h"

TipprmiStream &operator<<(TipprmiStream &stream, const TreflectORB::PerfCnts &counters) {
    return stream << counters.target << counters.requests << counters.failures;
}

TipprmiStream &operator>>(TipprmiStream &stream, TreflectORB::PerfCnts &counters) {
    return stream >> counters.target >> counters.requests >> counters.failures;
}
