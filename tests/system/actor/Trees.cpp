#include "Trees.h"

#include "Commands.h"
#include "Output.h"
#include "objects/REFLECT_serverObject.h"

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr unsigned kNodes = 20; // of a branch, and of a node
constexpr unsigned kLeafDepth = 4;
constexpr unsigned kNobody = ~0U;
constexpr unsigned kSample = 16; // every 16th deep object is asked for its absolute name, which asks all its ancestors

struct Plan {
    unsigned self = 0;
    unsigned actors = 0;
    unsigned leaves = 0;
};
Plan plan;

TipprmiOID oid(const std::string &name) {
    return TipprmiOID(name, NamespaceId(1));
}

/** Of an object of the tree: its name, which is its identifier too, and all that follows from that. */
struct Place {
    std::string name = "r";
    std::string path = "/r";
    unsigned depth = 0;
    unsigned branch = 0;
    unsigned owner = 0;

    std::vector<Place> below() const;
    /** Whether it is out of reach of a walk when that actor is not there. */
    bool isLostWith(unsigned actor, bool byParents) const {
        return actor != kNobody && (owner == actor || (byParents && (actor == 0 || (depth > 0 && branch == actor))));
    }
};

std::vector<Place> Place::below() const {
    const unsigned counts[] = {plan.actors, kNodes, kNodes, plan.leaves, 0};
    std::vector<Place> places;
    for (unsigned i = 0; i < counts[depth]; ++i) {
        Place place = *this;
        char text[16];
        std::snprintf(text, sizeof text, depth == 0 ? "b%u" : ".%02u", i);
        place.name = (depth == 0 ? "" : name) + text;
        place.path = path + "/" + place.name;
        place.depth = depth + 1;
        if (depth == 0) {
            place.branch = place.owner = i;
        } else if (depth == 1) {
            place.owner = (branch + i) % plan.actors;
        }
        places.push_back(place);
    }
    return places;
}

class TreeObject : public TreflectServerObject {
public:
    static constexpr unsigned kClass = 0x7EEE0001;

    TreeObject(const std::string &name, const TreflectObject *parent) : TreflectServerObject(oid(name), parent, name) {}
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(kClass);
        return ids;
    }
};

std::map<std::string, std::unique_ptr<TreeObject>> &objects() {
    static auto &instance = *new std::map<std::string, std::unique_ptr<TreeObject>>; // until the end of the process
    return instance;
}

/** Ends the object and those of its descendants that are here, leaves first. */
void drop(const Place &place) {
    if (place.depth > 1) {
        for (const Place &lower : place.below()) {
            drop(lower);
        }
    }
    objects().erase(place.name);
}

unsigned make(const Place &place, const TreflectObject *parent) {
    std::unique_ptr<TreeObject> &object = objects()[place.name];
    object = std::make_unique<TreeObject>(place.name, parent);
    unsigned count = 1;
    if (place.depth > 1) {
        for (const Place &lower : place.below()) {
            count += make(lower, object->getClient());
        }
    }
    return count;
}

std::string remake(const std::vector<Place> &places, const std::string &parentName) {
    const TreflectObject parent(oid(parentName));
    unsigned count = 0;
    for (const Place &place : places) {
        if (place.owner == plan.self) {
            drop(place);
            count += make(place, parentName.empty() ? nullptr : &parent);
        }
    }
    return "made " + std::to_string(count);
}

std::string onPlan(Arguments &arguments) {
    arguments >> plan.self >> plan.actors >> plan.leaves;
    return "planned";
}

std::string onRoot(Arguments &) {
    return remake({Place()}, "");
}

Place branch(Arguments &arguments) {
    unsigned number = 0;
    arguments >> number;
    return Place().below().at(number);
}

std::string onBranch(Arguments &arguments) {
    return remake({branch(arguments)}, Place().name);
}

std::string onNodes(Arguments &arguments) {
    const Place above = branch(arguments);
    return remake(above.below(), above.name);
}

class Walk {
public:
    Walk(std::string how, const std::string &state, unsigned actor)
        : how_(std::move(how)), state_(state), mayBeThere_(state == "dying" || state == "coming"),
          isRemade_(state == "coming"), actor_(state == "up" ? kNobody : actor) {}

    void visit(const Place &place, const TreflectObject &object) {
        const bool isThere = object.isConnected() && object.getRelName() == place.name;
        const bool isLost = place.isLostWith(actor_, isRemade_ || how_ != "names");
        ++(isThere ? found_ : missing_);
        check(isThere ? !isLost || mayBeThere_ : isLost, place);
        // Asks through other actors, which can be compared only when all are there.
        const bool isAsked = actor_ == kNobody && (place.depth <= 2 || found_ % kSample == 0);
        check(!isAsked || object.getAbsName() == place.path, place);
        if (mayBeThere_ && (found_ + missing_) % 100 == 0) {
            say("%s at %u of %u", state_.c_str(), found_ + missing_, actor_);
        }
        if (place.depth < kLeafDepth) {
            visitBelow(place, object, isLost);
        }
    }
    std::string result() const {
        return "found " + std::to_string(found_) + " missing " + std::to_string(missing_) + " wrong " +
               std::to_string(wrong_);
    }

private:
    void visitBelow(const Place &place, const TreflectObject &object, bool isLost) {
        const std::vector<Place> places = place.below();
        if (how_ == "childs") {
            const TipprmiSequence<TreflectObject> children = object.getChilds();
            check(isLost || children.getLength() == places.size(), place);
            for (unsigned i = 0; i < places.size(); ++i) {
                visit(places[i], i < children.getLength() ? children[i] : TreflectObject());
            }
            return;
        }
        for (const Place &lower : places) {
            visit(lower, how_ == "child" ? object.getChild(lower.name) : TreflectObject(oid(lower.name)));
        }
    }
    void check(bool right, const Place &place) {
        if (!right && ++wrong_ <= 5) {
            say("wrong %s", place.name.c_str());
        }
    }

    const std::string how_;
    const std::string state_;
    const bool mayBeThere_;
    const bool isRemade_;
    const unsigned actor_;
    unsigned found_ = 0;
    unsigned missing_ = 0;
    unsigned wrong_ = 0;
};

std::string onWalk(Arguments &arguments) {
    std::string how;
    std::string state;
    unsigned actor = kNobody;
    arguments >> how >> state >> actor;
    Walk walk(how, state, actor);
    walk.visit(Place(), TreflectObject(oid(Place().name)));
    return walk.result();
}

constexpr Command kCommands[] = {
    {"plan", &onPlan}, {"root", &onRoot}, {"branch", &onBranch}, {"nodes", &onNodes}, {"walk", &onWalk},
};

} // namespace

void onTree(Arguments &arguments) {
    runOneOf(kCommands, "tree", arguments);
}
