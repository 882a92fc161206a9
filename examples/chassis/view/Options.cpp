#include "view/Options.h"

#include "orb/REFLECT_orb.h"

#include <algorithm>
#include <cstdlib>
#include <unistd.h>

namespace View {

bool parseNumber(const std::string &text, unsigned limit, unsigned &number) {
    if (text.empty() || text.size() > 10 ||
        !std::all_of(text.begin(), text.end(), [](char digit) { return digit >= '0' && digit <= '9'; })) {
        return false;
    }
    const unsigned long long value = std::stoull(text);
    number = static_cast<unsigned>(value);
    return value <= limit;
}

bool setSlot(const std::string &text) {
    unsigned slot = 0;
    return parseNumber(text, 255, slot) && slot != 0 && ::setenv("REFLECTORB_SLOT", text.c_str(), 1) == 0;
}

std::string unitDirectory() {
    const auto variable = [](const char *name) {
        const char *const value = std::getenv(name);
        return std::string(value != nullptr ? value : "");
    };
    if (!variable("REFLECTORB_UNIT_DIR").empty()) {
        return variable("REFLECTORB_UNIT_DIR");
    }
    if (!variable("XDG_RUNTIME_DIR").empty()) {
        return variable("XDG_RUNTIME_DIR") + "/reflectorb";
    }
    return ::geteuid() == 0 ? "/run/reflectorb" : "/tmp/reflectorb-" + std::to_string(::geteuid());
}

const TreflectORB *joinUnit(std::string &problem) {
    const TreflectORB *const orb = TreflectORB::getInstance(NamespaceId(1));
    if (orb == nullptr || orb->termId() == Transport::TerminationId()) {
        problem = "cannot join the unit in " + unitDirectory() +
                  ": it must be a directory of this user only (mode 700), whose parent exists; the log says more";
        return nullptr;
    }
    return orb;
}

} // namespace View
