#include "Tree.h"

#include "Service.h"
#include "orb/REFLECT_orb.h"
#include "reflection/REFLECT_metaObject.h"
#include "rmi/Method.h"
#include "threads/HandlerState.h"

namespace Bench {

namespace {

constexpr unsigned kGetNumber = 1;
constexpr TipprmiMethod<Node, unsigned> kNumber{"getnumber", Node::kClass, kGetNumber, &Node::number};

class NodeMeta : public TreflectMetaObject {
public:
    NodeMeta() : TreflectMetaObject("Node", Node::kClass) {}
    void completeMetaInformation() override {
        const TreflectHandlerState state(true);
        if (completed_ != 0) {
            return;
        }
        completed_ = 1;
        static const MetaOpData operations[] = {{"getnumber", kGetNumber}};
        static const MetaAttrData attributes[] = {{"number"}};
        completeMetaInformationHelper(operations, 1, attributes, 1);
    }
};

const NodeMeta &nodeMeta = *new NodeMeta; // from the start of the process on, for ever

} // namespace

Node::Node(const std::string &name, const TreflectObject *parent, const char *oid)
    : TreflectServerObject(TipprmiOID(oid, NamespaceId(1)), parent, name) {}

TipprmiSequence<unsigned> Node::getServerClassIdSeq() const {
    TipprmiSequence<unsigned> ids;
    ids.push_back(nodeMeta.id());
    return ids;
}

bool Node::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
    if (cc == kClass && mc == kGetNumber) {
        return kNumber.answer(*this, request, response);
    }
    return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
}

Chain::Chain(const std::string &name) {
    const TreflectHandlerState state(true);
    nodes_.emplace_back(name, nullptr, name.c_str());
    for (const char *below : kNames) {
        const TreflectObject parent(*nodes_.back().getClient());
        nodes_.emplace_back(below, &parent);
    }
}

Chain::~Chain() {
    const TreflectHandlerState state(true);
    while (!nodes_.empty()) {
        nodes_.pop_back();
    }
}

int serveTree(const std::string &name) {
    if (TreflectORB::getInstance(1) == nullptr) {
        return 1;
    }
    const Chain chain(name);
    return serveUntilTheEnd();
}

} // namespace Bench
