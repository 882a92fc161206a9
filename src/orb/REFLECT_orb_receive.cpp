#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Log.h"
#include "platform/Thread.h"

#include <cstdlib>

namespace {

constexpr const char *kSource = "REFLECT_orb";

} // namespace

bool TreflectORB::receive(const Transport::AddressedMessage &addressed) {
    SingletonInstances::Inside inside;
    receivingThreadId_.store(OSWrap::Thread::getCurrentId(), std::memory_order_relaxed);
    if (addressed.size() < TreflectMessage::kHeaderSize) {
        dropped_.fetch_add(1, std::memory_order_relaxed);
        LogDispatch(3,
                    LogMakeString("ORB 0x%08X drops a message of %u bytes from 0x%08X", termId().value(),
                                  addressed.size(), addressed.originator().value()),
                    kSource);
        return true;
    }
    const TreflectMessage message(addressed);
    const TreflectMessage::kind_t kind = message.kind();
    if (kind == TreflectMessage::kReFai) {
        LogDispatch(0,
                    LogMakeString("ORB 0x%08X received response failure message from 0x%08X", termId().value(),
                                  message.originator().value()),
                    kSource);
        resetUnit();
    }
    received_[kind < kCountedKinds ? static_cast<unsigned>(kind) : 0U].fetch_add(1, std::memory_order_relaxed);
    LogDispatch(6,
                LogMakeString("ORB 0x%08X received %s, %s of %u bytes from 0x%08X", termId().value(),
                              TreflectMessage::typeToStr(message.type()).c_str(),
                              TreflectMessage::kindToStr(kind).c_str(), message.size(), message.originator().value()),
                kSource);
    return true;
}

bool TreflectORB::receiveError(const Transport::AddressedMessage &addressed) {
    TreflectMessage message(addressed);
    message.kind(TreflectMessage::kNoDes);
    if (message.kind() != TreflectMessage::kNoDes && addressed.size() >= TreflectMessage::kHeaderSize) {
        // No memory for a copy of its own. Under its old kind it would be taken for a message from somebody else.
        LogDispatch(3, LogMakeString("ORB 0x%08X drops a returned message, no memory", termId().value()), kSource);
        return true;
    }
    return receive(message.addressed());
}

TreflectORB::ReceiveCounts TreflectORB::receiveCounts() const noexcept {
    const auto count = [this](TreflectMessage::kind_t kind) { return received_[kind].load(std::memory_order_relaxed); };
    ReceiveCounts counts;
    counts.requests = count(TreflectMessage::kRequ);
    counts.oneWay = count(TreflectMessage::kMsg);
    counts.responses = count(TreflectMessage::kResp);
    counts.undeliverable = count(TreflectMessage::kNoDes);
    counts.otherKinds = count(TreflectMessage::kUndef);
    counts.dropped = dropped_.load(std::memory_order_relaxed);
    return counts;
}

void TreflectORB::resetUnit() const {
    LogDispatch(5, LogMakeString("ORB 0x%08X requests UNIT RESET", termId().value()), kSource);
    LogDispatch(0, LogMakeString("ORB 0x%08X failed to reset unit, EXIT ACTOR", termId().value()), kSource);
    Log::flushBeforeAbort();
    std::abort();
}

void TreflectORB::appeared(Transport::Termination &termination) {
    SingletonInstances::Inside inside;
    LogDispatch(5, LogMakeString("ORB 0x%08X sees 0x%08X appear", termId().value(), termination.termId().value()),
                kSource);
}

void TreflectORB::disappeare(Transport::Termination &termination) {
    SingletonInstances::Inside inside;
    LogDispatch(5, LogMakeString("ORB 0x%08X sees 0x%08X disappear", termId().value(), termination.termId().value()),
                kSource);
}
