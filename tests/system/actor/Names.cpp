#include "Names.h"

#include "Commands.h"
#include "objects/REFLECT_serverObject.h"

#include <algorithm>
#include <map>
#include <memory>
#include <string>

namespace {

TipprmiOID oid(const std::string &name) {
    return TipprmiOID(name, NamespaceId(1));
}

class Bearer : public TreflectServerObject {
public:
    static constexpr unsigned kClass = 0x4E000001;

    Bearer(const std::string &id, const TreflectObject *parent, const std::string &name)
        : TreflectServerObject(oid(id), parent, name) {}
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(kClass);
        return ids;
    }
};

std::map<std::string, std::unique_ptr<Bearer>> &bearers() {
    static auto &instance = *new std::map<std::string, std::unique_ptr<Bearer>>; // until the end of the process
    return instance;
}

std::string name(Arguments &arguments) {
    std::string text = word(arguments);
    std::replace(text.begin(), text.end(), '~', '\0');
    std::replace(text.begin(), text.end(), '_', ' ');
    return text;
}

std::string shown(std::string text) {
    std::replace(text.begin(), text.end(), '\0', '~');
    std::replace(text.begin(), text.end(), ' ', '_');
    return text;
}

TreflectObject named(Arguments &arguments) {
    return TreflectObject(oid(word(arguments)));
}

std::string idOf(const TreflectObject &object) {
    return object.isConnected() ? object.getOID().getIdString() : "-";
}

std::string onMake(Arguments &arguments) {
    const std::string id = word(arguments);
    const std::string own = name(arguments);
    const std::string parent = word(arguments);
    const TreflectObject above(oid(parent));
    bearers()[id] = std::make_unique<Bearer>(id, parent.empty() ? nullptr : &above, own);
    return "ok";
}

std::string onDrop(Arguments &arguments) {
    return bearers().erase(word(arguments)) == 1 ? "ok" : "unknown";
}

std::string onChildren(Arguments &arguments) {
    const TipprmiSequence<TreflectObject> children = named(arguments).getChilds();
    std::string ids;
    for (unsigned i = 0; i < children.getLength(); ++i) {
        ids += (i == 0 ? "" : " ") + idOf(children[i]);
    }
    return ids;
}

std::string onChild(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    return idOf(object.getChild(name(arguments)));
}

std::string onAdopt(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    const std::string as = name(arguments);
    object.registerChild(as, named(arguments));
    return "ok";
}

std::string onAbandon(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    object.unregisterChild(name(arguments));
    return "ok";
}

constexpr Command kCommands[] = {
    {"make", &onMake},
    {"drop", &onDrop},
    {"rel", [](Arguments &arguments) { return shown(named(arguments).getRelName()); }},
    {"abs", [](Arguments &arguments) { return shown(named(arguments).getAbsName()); }},
    {"children", &onChildren},
    {"child", &onChild},
    {"adopt", &onAdopt},
    {"abandon", &onAbandon},
};

} // namespace

void onName(Arguments &arguments) {
    runOneOf(kCommands, "name", arguments);
}
