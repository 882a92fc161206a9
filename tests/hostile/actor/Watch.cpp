#include "Watch.h"

#include "../../system/actor/Output.h"
#include "objects/REFLECT_objectStub.h"
#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_Observer.h"
#include "orb/REFLECT_orb.h"
#include "platform/Thread.h"
#include "reflection/REFLECT_metaObject.h"
#include "threads/HandlerState.h"

#include <cstring>
#include <list>
#include <memory>
#include <string>

namespace {

constexpr unsigned kClass = 0x0B5E47ED;

class Meta : public TreflectMetaObject {
public:
    Meta() : TreflectMetaObject("Watched", kClass) {}
    void completeMetaInformation() override {}
};
Meta &meta = *new Meta; // until the end of the process, as all that follows

class Watched : public TreflectServerObject {
public:
    explicit Watched(const std::string &name)
        : TreflectServerObject(TipprmiOID(name, NamespaceId(1)), nullptr, "watched") {}
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(kClass);
        return ids;
    }
};

/** What was told last, and by kind how often; with the run permission. */
struct Told {
    unsigned creations = 0;
    unsigned deletions = 0;
    std::size_t length = 0;
    unsigned number = 0;
};
Told &told() {
    static Told &instance = *new Told;
    return instance;
}

class Watcher : public TreflectObserver {
public:
    explicit Watcher(unsigned Told::*count)
        : TreflectObserver(TipprmiOID(nullptr, NamespaceId(1)), nullptr, "watcher"), count_(count) {}
    bool detected() override {
        const TreflectHandlerState state(true);
        ++(told().*count_);
        const TreflectObjectStub &stub = *getSource()->getStub();
        told().length = stub.hasOID() ? std::strlen(stub.getOID().getIdString()) : 0;
        told().number = stub.getInternalOID();
        return true;
    }

private:
    unsigned Told::*const count_;
};

Watcher &creations() {
    static Watcher &instance = *new Watcher(&Told::creations);
    return instance;
}

Watcher &deletions() {
    static Watcher &instance = *new Watcher(&Told::deletions);
    return instance;
}

std::list<std::unique_ptr<Watched>> &objects() {
    static auto &instance = *new std::list<std::unique_ptr<Watched>>;
    return instance;
}

void makeOne(const std::string &name = "") {
    auto object = std::make_unique<Watched>(name);
    object->sendCreationEvent(&meta);
    objects().push_back(std::move(object));
}

class Maker : public OSWrap::Thread {
public:
    Maker() : Thread(OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), ~0U, "maker", false) {}

protected:
    int run() override {
        const TreflectHandlerState state(true);
        makeOne();
        return 0;
    }
};

} // namespace

void onWatch(std::istringstream &) {
    const TreflectHandlerState state(true);
    meta.observeDeletions(&deletions());
    meta.observeCreations(&creations(), true);
    say("watch ok");
}

void onUnwatch(std::istringstream &) {
    const TreflectHandlerState state(true);
    meta.removeObserver(&creations());
    meta.removeObserver(&deletions());
    say("watch ok");
}

void onWatched(std::istringstream &) {
    const TreflectHandlerState state(true);
    say("watched %u %u %zu %X", told().creations, told().deletions, told().length, told().number);
}

void onMake(std::istringstream &arguments) {
    unsigned count = 0;
    unsigned length = 0;
    arguments >> count >> length;
    const TreflectHandlerState state(true);
    for (unsigned i = 0; i < count; ++i) {
        makeOne(length != 0 ? std::string(length, 'n') + std::to_string(i) : "");
    }
    say("made %zu", objects().size());
}

void onMaking(std::istringstream &) {
    static auto &threads = *new std::list<Maker>;
    threads.emplace_back();
    threads.back().start();
    say("making");
}

void onMade(std::istringstream &) {
    const TreflectHandlerState state(true);
    say("made %zu", objects().size());
}

void onRemove(std::istringstream &) {
    const TreflectHandlerState state(true);
    while (!objects().empty()) {
        const std::unique_ptr<Watched> object = std::move(objects().front());
        objects().pop_front();
        object->sendDeletionEvent(&meta);
    }
    say("removed");
}

void onSubscribers(std::istringstream &arguments) {
    std::string text;
    arguments >> text;
    const TreflectHandlerState state(true);
    const TreflectORB::MetaData &data =
        *TreflectORB::getInstance(1)->getMetaData(static_cast<unsigned>(std::stoul(text, nullptr, 16)));
    say("subscribers %zu %zu", data.remoteCreationObservers.size(), data.remoteDeletionObservers.size());
}
