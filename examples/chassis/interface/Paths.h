#pragma once

#include "rmi/IPPRMI_oid.h"

#include <string>

/** Where objects stand in the tree. Each object has its path for identifier, so it is found by it from every actor:
 *  `Port port(Paths::id(Paths::port(2, "eth0")))`. No name of an interface has a '/'. */
namespace Paths {

inline std::string chassis() {
    return "/chassis";
}
inline std::string slotName(unsigned number) {
    return "slot" + std::to_string(number);
}
inline std::string slot(unsigned number) {
    return chassis() + "/" + slotName(number);
}
inline std::string port(unsigned slotNumber, const std::string &interface) {
    return slot(slotNumber) + "/" + interface;
}
inline TipprmiOID id(const std::string &path) {
    return TipprmiOID(path, NamespaceId(1));
}

} // namespace Paths
