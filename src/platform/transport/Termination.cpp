#include "platform/Termination.h"

#include "platform/IdInfo.h"
#include "platform/transport/LayerCore_p.h"
#include "platform/transport/OwnTermination_p.h"

#include <new>

namespace Transport {

namespace {

// Without memory for either the termination exists, but cannot be started.

TerminationId claimId(GroupId group) noexcept {
    try {
        const unsigned name = LayerCore::instance().claimName();
        return name != 0 ? TerminationId(name, IdInfo::getSlot(), group) : TerminationId();
    } catch (const std::bad_alloc &) {
        return TerminationId();
    }
}

std::shared_ptr<OwnTermination> makeOwn(TerminationImpl &termination) noexcept {
    try {
        return std::make_shared<OwnTermination>(termination);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

} // namespace

Termination::~Termination() = default;
bool Termination::receive(const AddressedMessage &) {
    return false;
}
bool Termination::issue(const AddressedMessage &) {
    return false;
}
bool Termination::receiveError(const AddressedMessage &) {
    return false;
}
bool Termination::issueError(const AddressedMessage &) {
    return false;
}

TerminationImpl::TerminationImpl(GroupId group, const char *) noexcept
    : Termination(claimId(group)), own_(makeOwn(*this)) {}

TerminationImpl::~TerminationImpl() {
    LayerCore::instance().stop(*this);
    if (termId().value() != 0) {
        LayerCore::instance().releaseName(termId().nameId());
    }
}

AddressedMessage TerminationImpl::allocateMessage(unsigned size, unsigned align, unsigned spare) const noexcept {
    AddressedMessage message = AddressedMessage::allocate(size, align, spare);
    message.originator() = termId();
    return message;
}

bool TerminationImpl::issue(const AddressedMessage &message) {
    return LayerCore::instance().issue(termId(), message);
}
bool TerminationImpl::issueError(const AddressedMessage &message) {
    return LayerCore::instance().giveBack(message);
}
bool TerminationImpl::start() {
    return LayerCore::instance().start(*this);
}
bool TerminationImpl::started() {
    return LayerCore::instance().started(*this);
}

bool TerminationImpl::stop() {
    LayerCore::instance().stop(*this);
    return true;
}

void TerminationImpl::appeared(Termination &) {}
void TerminationImpl::disappeare(Termination &) {}

} // namespace Transport
