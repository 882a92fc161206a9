#pragma once

#include "Commands.h"
#include "Port.h"
#include "view/Path.h"

#include <string>
#include <vector>

/** The unit's tree as it is now. Everything here needs the run permission, and calls the actors that have the objects.
 */
namespace Unit {

/** The object at a path, by way of its parents. `done`, or the status after the problem was reported: which also is one
 *  that nothing is there, with the names nearest to the one that is wrong. */
int find(const View::Path &path, TreflectObject &object);
/** The same for a path as it was typed. */
int find(const std::string &text, View::Path &path, TreflectObject &object);

struct Named {
    std::string name;
    TreflectObject object;
};
/** By name; without those whose actor has ended. */
std::vector<Named> childrenOf(const TreflectObject &object);

struct PortAt {
    View::Path path;
    Port port;
};

/** Of something that went while it was read: reports that. */
int failGone(const View::Path &path);

/** The port itself, or all below the object. */
std::vector<PortAt> portsBelow(const View::Path &path, const TreflectObject &object);

} // namespace Unit
