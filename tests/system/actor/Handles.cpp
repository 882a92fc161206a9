#include "Handles.h"

#include "Commands.h"
#include "Counts.h"
#include "Output.h"
#include "objects/REFLECT_objectStub.h"
#include "observation/REFLECT_ObserverClient.h"
#include "platform/Thread.h"
#include "reflection/REFLECT_tieds.h"
#include "support/ReflectiveClasses.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

TreflectObject named(const std::string &name) {
    return TreflectObject(TipprmiOID(name, NamespaceId(1)));
}

TreflectObject named(Arguments &arguments) {
    return named(word(arguments));
}

// --- the pool -------------------------------------------------------------------------------------------------------

constexpr unsigned kBlock = 256;
using Handles = std::vector<std::unique_ptr<TreflectObject>>;

Handles make(const TreflectObject &object, unsigned count) {
    Handles handles;
    for (unsigned i = 0; i < count; ++i) {
        handles.emplace_back(new TreflectObject(object));
    }
    return handles;
}

std::vector<const void *> placesOf(const Handles &handles) {
    std::vector<const void *> places;
    for (const std::unique_ptr<TreflectObject> &handle : handles) {
        places.push_back(handle.get());
    }
    std::sort(places.begin(), places.end());
    return places;
}

/** A handle and the link to the next free one. */
constexpr std::ptrdiff_t kCell = sizeof(TreflectObject) + sizeof(void *);

/** How many lie directly behind each other, the longest row first. */
std::string rows(const std::vector<const void *> &places) {
    std::vector<unsigned> lengths{1};
    for (std::size_t i = 1; i < places.size(); ++i) {
        const auto distance = static_cast<const char *>(places[i]) - static_cast<const char *>(places[i - 1]);
        if (distance == kCell) {
            ++lengths.back();
        } else {
            lengths.push_back(1);
        }
    }
    std::sort(lengths.rbegin(), lengths.rend());
    std::string list;
    for (const unsigned length : lengths) {
        list += std::to_string(length) + " ";
    }
    return list;
}

/** Whether a new handle of the type lies where the last one lay, which goes. */
template <class Handle>
std::string replaces(Handles &handles, const TreflectObject &object) {
    const void *const place = handles.back().get();
    handles.pop_back();
    auto *const added = new Handle(object);
    handles.emplace_back(added);
    return added == place ? "same " : "other ";
}

std::string onPool(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    Handles handles = make(object, kBlock);
    static std::vector<char> spacer;
    spacer.resize(kBlock * kCell); // not every heap leaves room between blocks
    handles.emplace_back(new TreflectObject(object));
    const std::vector<const void *> places = placesOf(handles);
    std::string answer = rows(places);
    answer += replaces<Testing::Port>(handles, object);
    answer += replaces<TreflectObserverClient>(handles, object);
    handles.clear();
    handles = make(object, kBlock + 1);
    return answer + (placesOf(handles) == places ? "same" : "other");
}

// --- shared stubs ---------------------------------------------------------------------------------------------------

std::string onAssign(Arguments &arguments) {
    const TreflectObject one = named(arguments);
    const TreflectObject two = named(arguments);
    const int oneBefore = one.getStub()->refCount();
    const int twoBefore = two.getStub()->refCount();
    const unsigned before = sentRequests();
    std::string list;
    const auto count = [&] {
        list += std::to_string(one.getStub()->refCount() - oneBefore) + "/" +
                std::to_string(two.getStub()->refCount() - twoBefore) + " ";
    };
    TreflectObject a(one);
    TreflectObject b(a);
    count();
    const TreflectObject &self = a;
    a = self;
    a = b;
    b = a;
    count(); // as before
    b = two;
    count();
    a = two;
    count();
    b = TreflectObject();
    count();
    b = one;
    a = b;
    count();
    return list + "sent " + std::to_string(sentRequests() - before);
}

std::string onLost(Arguments &arguments) {
    const TreflectObject lost = named(arguments);
    const unsigned before = sentRequests();
    TreflectObject copy(lost);
    const unsigned copied = sentRequests();
    const TreflectObject &self = copy;
    copy = self;
    copy = lost;
    return std::to_string(copied - before) + " " + std::to_string(sentRequests() - copied);
}

std::string onShares(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    TreflectObject told;
    object.attribute("carrier")->get(told);
    return told.isConnected() && named(told.getOID().getIdString()).getStub() == told.getStub() ? "1" : "0";
}

std::string onClimb(Arguments &arguments) {
    std::string names;
    for (TreflectObject object = named(arguments); object.isConnected(); object = object.getParent()) {
        names += (names.empty() ? "" : " ") + object.getRelName();
    }
    return names;
}

struct Pair {
    TreflectObject one;
    TreflectObject other;

    static Pair &kept() {
        static Pair &instance = *new Pair;
        return instance;
    }
    std::string count() const { return std::to_string(one.getStub()->refCount()); }
};

std::string onKeep(Arguments &arguments) {
    Pair &pair = Pair::kept();
    pair.one = named(arguments);
    pair.other = pair.one;
    return pair.count();
}

std::string onMix(Arguments &) {
    Pair &pair = Pair::kept();
    const TreflectObject &self = pair.one;
    pair.one = self;
    pair.one = pair.other;
    pair.other = pair.one;
    return pair.count();
}

std::string onDrop(Arguments &) {
    Pair::kept().one = TreflectObject();
    Pair::kept().other = TreflectObject();
    return "ok";
}

// --- the end of the process -----------------------------------------------------------------------------------------

/** Static handles with members, of which the last ones are made when it ends. */
class Held {
public:
    explicit Held(const char *when) : when_(when) {}
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;
    /** Says whether members can still be had, and whether they could be registered before and after that. */
    ~Held() {
        if (handles_.empty()) {
            return;
        }
        const TreflectHandlerState state(true);
        const bool before = TreflectTieds::instance() != nullptr;
        const bool isThere = handles_.front().attribute("serial") != &TreflectObject::errorAttribute;
        const bool after = TreflectTieds::instance() != nullptr;
        const std::size_t count = handles_.size();
        handles_.clear();
        say("gone %s %zu %d%d%d", when_, count, before ? 1 : 0, isThere ? 1 : 0, after ? 1 : 0);
    }

    /** Also a copy of a handle, and handles that do not go with theirs. */
    int hold(const std::string &name) {
        handles_.push_back(named(name));
        handles_.push_back(handles_.front());
        const TreflectObject &object = handles_.back();
        object.operation("reset");
        std::string text;
        return object.attribute("carrier")->attribute("serial")->get(text) + object.attribute("label")->get(text) +
               object.attribute("speed")->operSet()->call();
    }

private:
    const char *const when_;
    std::list<TreflectObject> handles_;
};

Held early("early"); // destroyed when the library has ended

std::string onHold(Arguments &arguments) {
    const std::string name = word(arguments);
    const int code = early.hold(name);
    static Held late("late");
    return std::to_string(code + late.hold(name));
}

/** Until something is missing: it, or the other actor, ends. */
class Reader : public OSWrap::Thread {
public:
    explicit Reader(TreflectObject object)
        : Thread(OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), 256 * 1024, "reader", false),
          object_(std::move(object)) {}

protected:
    int run() override {
        for (unsigned good = 1; isReadable(); ++good) {
            if (good == kEnough) {
                say("reading");
            }
        }
        return 0;
    }

private:
    static constexpr unsigned kEnough = 5;

    bool isReadable() const {
        const TreflectHandlerState state(true);
        const TreflectObject copy(object_);
        std::string text;
        return copy.attribute("carrier")->attribute("serial")->get(text) == 0 && !text.empty();
    }

    const TreflectObject object_;
};

std::string onReaders(Arguments &arguments) {
    static auto &readers = *new std::list<Reader>; // until the end of the process
    const TreflectObject object = named(arguments);
    unsigned count = 0;
    arguments >> count;
    for (unsigned i = 0; i < count; ++i) {
        readers.emplace_back(object);
        readers.back().start();
    }
    return "ok";
}

constexpr Command kCommands[] = {
    {"pool", &onPool}, {"assign", &onAssign}, {"lost", &onLost}, {"shares", &onShares}, {"climb", &onClimb},
    {"keep", &onKeep}, {"mix", &onMix},       {"drop", &onDrop}, {"hold", &onHold},     {"readers", &onReaders},
};

} // namespace

void onHandle(Arguments &arguments) {
    runOneOf(kCommands, "handle", arguments);
}
