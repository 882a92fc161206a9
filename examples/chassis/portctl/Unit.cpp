#include "Unit.h"

#include "Chassis.h"
#include "Paths.h"
#include "Slot.h"
#include "view/Options.h"

namespace Unit {

namespace {

constexpr std::size_t kNamesToTry = 5;

int reportMissing(const View::Path &path, std::size_t depth, const TreflectObject &parent) {
    static constexpr const char *kinds[] = {"slot", "port"};
    const View::Path above(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(depth));
    std::vector<std::string> names;
    for (const Named &child : childrenOf(parent)) {
        names.push_back(child.name);
    }
    if (depth >= 2) {
        return fail(notFound, View::pathText(above) + " is a port: there is nothing below it");
    }
    const std::string what =
        std::string("no ") + kinds[depth] + " '" + View::printable(path[depth]) + "' in " + View::pathText(above);
    if (names.empty()) {
        return fail(notFound, what + (depth == 0 ? ", which has none: start a port_agent" : ", which has none"));
    }
    return fail(notFound, what + "; nearest: " + View::joined(View::nearest(path[depth], names, kNamesToTry)) +
                              ". 'portctl tree' shows all");
}

bool isA(const TreflectObject &object, unsigned classId) {
    const TreflectMetaObject *const meta = object.meta();
    return meta != nullptr && meta->id() == classId;
}

} // namespace

int find(const View::Path &path, TreflectObject &object) {
    std::string problem;
    if (View::joinUnit(problem) == nullptr) {
        return fail(noUnit, problem);
    }
    object = TreflectObject(Paths::id(Paths::chassis()));
    if (!object.isConnected()) {
        return fail(noUnit, "nobody has " + Paths::chassis() + " in the unit in " + View::unitDirectory() +
                                ": start chassis_manager there, or set REFLECTORB_UNIT_DIR to the unit's directory");
    }
    for (std::size_t depth = 0; depth < path.size(); ++depth) {
        const TreflectObject child = object.getChild(path[depth]);
        if (!child.isConnected() || child.getRelName() != path[depth]) { // one whose actor has just ended has no name
            return reportMissing(path, depth, object);
        }
        object = child;
    }
    return done;
}

int find(const std::string &text, View::Path &path, TreflectObject &object) {
    if (!View::parsePath(text, path)) {
        return failUsage("'" + View::printable(text) + "' is no path: write /chassis/slot2/eth0, or slot2/eth0");
    }
    return find(path, object);
}

int failGone(const View::Path &path) {
    return fail(refused, View::pathText(path) + ": it has gone meanwhile. 'portctl tree' shows what is there");
}

std::vector<Named> childrenOf(const TreflectObject &object) {
    std::vector<Named> named;
    const TipprmiSequence<TreflectObject> children = object.getChilds();
    for (unsigned i = 0; i < children.getLength(); ++i) {
        const std::string name = children[i].getRelName();
        if (!name.empty()) {
            named.push_back({name, children[i]});
        }
    }
    return named;
}

std::vector<PortAt> portsBelow(const View::Path &path, const TreflectObject &object) {
    if (isA(object, Port::CLASS_ID)) {
        return {{path, Port(object)}};
    }
    std::vector<PortAt> ports;
    for (const Named &child : childrenOf(object)) {
        View::Path below = path;
        below.push_back(child.name);
        for (PortAt &port : portsBelow(below, child.object)) {
            ports.push_back(std::move(port));
        }
    }
    return ports;
}

} // namespace Unit
