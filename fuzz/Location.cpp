// The location of an object as it travels in messages, and the name that stands for one.
#include "Broker.h"
#include "rmi/StreamOperators.h"

#include <string>

namespace {

using Location = TreflectORB::TreflectObjectLocation;

bool same(const Location &a, const Location &b) {
    return a.getInternalOID() == b.getInternalOID() && a.orbId() == b.orbId() && a.hasOID() == b.hasOID() &&
           (!a.hasOID() || a.getOID() == b.getOID());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Broker::instance();
    TipprmiStream stream(data, static_cast<int>(size));
    const Location nowhere(TipprmiOID(nullptr, NamespaceId(1)));
    Location location = nowhere;
    stream >> location;
    require(location.getServer() == nullptr, "what came from elsewhere has no server here");
    if (stream.hasUnmarshallingFailed()) {
        require(same(location, nowhere), "half a location is none");
    } else {
        TipprmiStream copy(1);
        copy << location;
        Location again = nowhere;
        copy >> again;
        require(!copy.hasUnmarshallingFailed() && same(location, again), "what is written is what is read");
    }
    const std::string name(reinterpret_cast<const char *>(data), size);
    const Location named(TipprmiOID(name, NamespaceId(1)));
    require(named.hasOID() || named.getOID().getIdString() == nullptr, "a name or none");
    require(!(location < location) && (!(named < location) || !(location < named)), "locations are ordered");
    return 0;
}
