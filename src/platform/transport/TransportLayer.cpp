#include "platform/TransportLayer.h"

#include "platform/transport/LayerCore_p.h"

#include <new>

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
    std::list<TerminationPtr> terminations;
    try {
        for (const TerminationPtr &termination : LayerCore::instance().all()) {
            terminations.push_back(termination);
        }
    } catch (const std::bad_alloc &) {
        terminations.clear();
    }
    return terminations;
}

std::list<TerminationId> Group::contains() const {
    std::list<TerminationId> members;
    try {
        for (const TerminationPtr &termination : LayerCore::instance().all()) {
            if (termination->termId().groupId() == id_) {
                members.push_back(termination->termId());
            }
        }
    } catch (const std::bad_alloc &) {
        members.clear();
    }
    return members;
}

} // namespace Transport
