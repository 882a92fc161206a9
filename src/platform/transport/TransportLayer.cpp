#include "platform/TransportLayer.h"

#include "platform/transport/LayerCore_p.h"

namespace Transport {

TransportLayer *TransportLayer::instance() noexcept {
    static TransportLayer *const layer = new TransportLayer;
    return layer;
}

TerminationPtr TransportLayer::getTermination(TerminationId id) {
    return LayerCore::instance().find(id);
}

bool TransportLayer::exists(TerminationId id) {
    return static_cast<bool>(getTermination(id));
}

Group TransportLayer::getGroup(GroupId id) noexcept {
    return Group(id);
}

std::list<TerminationPtr> TransportLayer::getTerminations() {
    const std::vector<TerminationPtr> all = LayerCore::instance().all();
    return {all.begin(), all.end()};
}

std::list<TerminationId> Group::contains() const {
    std::list<TerminationId> members;
    for (const TerminationPtr &termination : LayerCore::instance().all()) {
        if (termination->termId().groupId() == id_) {
            members.push_back(termination->termId());
        }
    }
    return members;
}

} // namespace Transport
