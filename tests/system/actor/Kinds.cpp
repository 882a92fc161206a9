#include "Kinds.h"

#include "Commands.h"
#include "Output.h"
#include "Reaction.h"
#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_Observer.h"
#include "orb/REFLECT_orb.h"
#include "reflection/REFLECT_metaObject.h"
#include "threads/HandlerState.h"

#include <map>
#include <memory>
#include <string>

namespace {

/** A class of which nothing is known but its code. */
class BareMeta : public TreflectMetaObject {
public:
    explicit BareMeta(unsigned code) : TreflectMetaObject("Bare", code) {}
    void completeMetaInformation() override { completed_ = 1; }
};

class Bare : public TreflectServerObject {
public:
    Bare(unsigned code, const std::string &name)
        : TreflectServerObject(TipprmiOID(name, NamespaceId(1)), nullptr, name), code_(code) {}
    unsigned getServerClassId() const override { return code_; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(code_);
        return ids;
    }

private:
    const unsigned code_;
};

std::map<std::string, std::unique_ptr<Bare>> &objects() {
    static auto &instance = *new std::map<std::string, std::unique_ptr<Bare>>; // until the end of the process
    return instance;
}

class Watcher : public TreflectObserver {
public:
    Watcher(unsigned code, const std::string &name)
        : TreflectObserver(TipprmiOID(nullptr, NamespaceId(1)), nullptr, name), code_(code) {}
    bool detected() override {
        const TreflectHandlerState state(true);
        const std::string name = getSource()->getOID().getIdString();
        say("sees %s %s", objectName(), name.c_str());
        react();
        if (leaves()) {
            stop();
        }
        if (deletes()) {
            objects().erase(name);
        }
        return true;
    }
    bool watch(const std::string &kind) {
        TreflectORB &orb = *TreflectORB::getInstance(1);
        return kind == "deletions" ? orb.observeDeletions(code_, *this)
                                   : orb.observeCreations(code_, *this, kind == "existing");
    }
    void stop() { TreflectORB::getInstance(1)->removeObserver(code_, *this); }

private:
    const unsigned code_;
};

std::map<std::string, std::unique_ptr<Watcher>> &watchers() {
    static auto &instance = *new std::map<std::string, std::unique_ptr<Watcher>>;
    return instance;
}

unsigned code(Arguments &arguments) {
    unsigned value = 0;
    arguments >> std::hex >> value;
    return value;
}

std::string onAdd(Arguments &arguments) {
    new BareMeta(code(arguments)); // until the end of the process
    return "added";
}

std::string onCreate(Arguments &arguments) {
    const unsigned cc = code(arguments);
    const std::string name = word(arguments);
    const auto made = objects().insert_or_assign(name, std::make_unique<Bare>(cc, name));
    const Bare &object = *made.first->second; // who is told of it may delete it
    object.sendCreationEvent(nullptr);
    return "created";
}

std::string onDelete(Arguments &arguments) {
    const std::string name = word(arguments);
    objects().at(name)->sendDeletionEvent(nullptr);
    objects().erase(name);
    return "deleted";
}

std::string onWatch(Arguments &arguments) {
    const unsigned cc = code(arguments);
    const std::string kind = word(arguments);
    const std::string name = word(arguments);
    Watcher &watcher = *watchers().insert_or_assign(name, std::make_unique<Watcher>(cc, name)).first->second;
    return watcher.watch(kind) ? "ok" : "failed";
}

std::string onUnwatch(Arguments &arguments) {
    const std::string name = word(arguments);
    watchers().at(name)->stop();
    watchers().erase(name);
    return "ok";
}

std::string onLose(Arguments &arguments) {
    watchers().erase(word(arguments));
    return "ok";
}

std::string onSubscribers(Arguments &arguments) {
    const TreflectORB::MetaData &data = *TreflectORB::getInstance(1)->getMetaData(code(arguments));
    return std::to_string(data.remoteCreationObservers.size()) + " " +
           std::to_string(data.remoteDeletionObservers.size());
}

constexpr Command kCommands[] = {
    {"add", &onAdd},         {"create", &onCreate}, {"delete", &onDelete},           {"watch", &onWatch},
    {"unwatch", &onUnwatch}, {"lose", &onLose},     {"subscribers", &onSubscribers},
};

} // namespace

void onKind(Arguments &arguments) {
    runOneOf(kCommands, "kind", arguments);
}
