#include "Unit.h"
#include "threads/HandlerState.h"
#include "view/Options.h"
#include "view/PortReader.h"

#include <cerrno>
#include <cstdio>
#include <limits>

namespace {

int reportRefusal(const View::Path &path, TipprmiExceptionContainer &raised) {
    PortRefused why;
    if (!raised.holds(why)) {
        return Unit::failGone(path);
    }
    const bool privileges = why.code == EPERM || why.code == EACCES;
    return fail(refused,
                View::pathText(path) + ": refused by the kernel: " + why.reason +
                    (privileges ? ". The slot's port_agent needs the capability CAP_NET_ADMIN: start it as root" : ""));
}

} // namespace

int set(const Arguments &arguments) {
    const bool mtu = arguments.size() == 3 && arguments[1] == "mtu";
    const bool admin = arguments.size() == 2 && (arguments[1] == "up" || arguments[1] == "down");
    if (!mtu && !admin) {
        return failUsage("set takes a PATH, and then 'mtu N', 'up' or 'down'");
    }
    unsigned bytes = 0;
    if (mtu && !View::parseNumber(arguments[2], std::numeric_limits<unsigned>::max(), bytes)) {
        const bool number = !arguments[2].empty() && arguments[2].find_first_not_of("0123456789") == std::string::npos;
        return failUsage("'" + View::printable(arguments[2]) +
                         (number ? "' is too large for an MTU" : "' is no MTU: that is a number of bytes, as 1500"));
    }
    const TreflectHandlerState permission(true);
    View::Path path;
    TreflectObject object;
    if (const int problem = Unit::find(arguments[0], path, object)) {
        return problem;
    }
    if (path.size() != 2) {
        return failUsage(View::pathText(path) + " is no port: name one in it, as " + View::pathText(path) +
                         (path.empty() ? "/slot1" : "") + "/eth0");
    }
    const Port port(object);
    TipprmiExceptionContainer raised;
    if (mtu) {
        port.setMtu(bytes, &raised);
    } else {
        port.setAdminState(arguments[1] == "up", &raised);
    }
    if (raised.getExceptionType() != 0) {
        return reportRefusal(path, raised);
    }
    View::PortReader read(port);
    const std::string state = read(&Port::adminState);
    const unsigned now = read(&Port::mtu);
    if (read.failed()) {
        return Unit::failGone(path);
    }
    std::printf("%s: %s, mtu %u\n", View::pathText(path).c_str(), state.c_str(), now);
    return done;
}
