#include "orb/Counted_p.h"
#include "orb/MessageQueue_p.h"
#include "orb/REFLECT_orb.h"
#include "platform/IdInfo.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/TransportLayer.h"
#include "platform/UnitFigures.h"
#include "threads/HandlerThreadsType_p.h"

#include <algorithm>
#include <utility>

namespace {

constexpr char kSource[] = "REFLECT_orb";
constexpr unsigned kRequestSize = 100;
constexpr unsigned kResponseSize = 104;
constexpr int kMaxShown = 64 * 1024; // the log shows no more of a line

using Locked = OSWrap::Lock<OSWrap::ConditionVar>;

const char *text(bool value) {
    return value ? "true" : "false";
}

std::string describeCall(TipprmiStream &body) {
    unsigned ioid = 0;
    bool transaction = false;
    unsigned cc = 0;
    unsigned mc = 0;
    body >> ioid >> transaction >> cc >> mc;
    return LogMakeString("    Message data: ioid=0x%X,transaction=%s,cc=0x%X,mc=%d", ioid, text(transaction), cc,
                         static_cast<int>(mc));
}

/** Not copied first: it may be as long as a message, of which a line shows a part. */
std::string describeName(TipprmiStream &body) {
    int length = 0;
    body >> length;
    length = body.admitLength(length);
    const bool there = length > 0 && body.getRemaining() >= length && !body.hasUnmarshallingFailed();
    const char *name = there ? reinterpret_cast<const char *>(body.getReadPtr()) : "";
    body.unmarshall(nullptr, length);
    NamespaceId ns;
    body >> ns;
    return there && *name != '\0' ? LogMakeString("    Message data: oid=%.*s", std::min(length, kMaxShown), name)
                                  : LogMakeString("    Message data: oid=unnamed");
}

std::string describeClass(TipprmiStream &body) {
    unsigned cc = 0;
    body >> cc;
    return LogMakeString("    Message data: cc=0x%X", cc);
}

std::string describeSubscription(TipprmiStream &body) {
    unsigned cc = 0;
    bool plusExisting = false;
    body >> cc >> plusExisting;
    return LogMakeString("    Message data: cc=0x%X, plusExisting=%s", cc, text(plusExisting));
}

std::string describeTermination(TipprmiStream &body) {
    Transport::TerminationId id;
    body >> id;
    return LogMakeString("    Message data: termId=%X", id.value());
}

std::string describeNothing(TipprmiStream &) {
    return LogMakeString("    Message data: unknown message"); // which does not throw without memory
}

using Describe = std::string (*)(TipprmiStream &body);
constexpr Describe kDescribe[] = {
    &describeNothing,      &describeName,  &describeCall,  &describeClass, &describeClass,
    &describeSubscription, &describeClass, &describeClass, &describeClass, &describeTermination,
};

} // namespace

void TreflectORB::testInfoAboutMessage(const Transport::TerminationId &, const TreflectMessage &message,
                                       bool request) const {
    message.testValidation(request ? TreflectMessage::kRequ : TreflectMessage::kMsg, 0, "", true, 0);
    TipprmiStream body(message, false);
    const unsigned type = message.type();
    const Describe describe = type < sizeof kDescribe / sizeof kDescribe[0] ? kDescribe[type] : &describeNothing;
    LogDispatch(5, describe(body), kSource);
}

TreflectORB::PerfCntInfo TreflectORB::getPerfCnts(const Transport::TerminationId &target) {
    const Counted inside(callers_);
    PerfCntInfo info;
    TipprmiStream request(allocateRequest(kRequestSize), true);
    request.msg().type(TreflectMessage::tPfCnt);
    TipprmiStream response(allocateResponse(request.msg(), kResponseSize), true);
    if (forwardMsg_(target, true, request.msg(), response)) {
        response >> info.actor >> info.counters;
    }
    return info;
}

std::list<TreflectORB::PerfCntMultInfo> TreflectORB::getPerfCnts() {
    const Counted inside(callers_);
    std::list<PerfCntMultInfo> all;
    for (Transport::TerminationId member : otherMembers()) {
        try {
            all.push_back({member, getPerfCnts(member)});
        } catch (const std::bad_alloc &) {
            LogDispatch(3, "ORB has no memory for all counters", kSource);
            break;
        }
    }
    return all;
}

void TreflectORB::display(int) {
    // The size first: it counts handler threads, and would count this one.
    const unsigned handlers = handlerThreads() != nullptr ? handlerThreads()->size() : 0;
    std::size_t co = 0;
    std::size_t deletion = 0;
    std::size_t oi = 0;
    std::size_t rco = 0;
    std::size_t rdo = 0;
    std::size_t classes = 0;
    {
        TreflectHandlerState state(true);
        classes = metaData_.size();
        for (const auto &[id, data] : metaData_) {
            co += data->creationObservers.size();
            deletion += data->deletionObservers.size();
            oi += data->objects.size();
            rco += data->remoteCreationObservers.size();
            rdo += data->remoteDeletionObservers.size();
        }
    }
    LogDispatch(5,
                LogMakeString("ORB display: actor %s, OrbId 0x%X, TermId 0x%08X", Transport::IdInfo::getActor().c_str(),
                              orbId_.value(), termId().value()),
                kSource);
    LogDispatch(5, LogMakeString("  number of handler threads: %d", static_cast<int>(handlers)), kSource);
    LogDispatch(5,
                LogMakeString("  metaData: size=%lu, co=%d, do=%d, oi=%d, rco=%d, rdo=%d",
                              static_cast<unsigned long>(classes), static_cast<int>(co), static_cast<int>(deletion),
                              static_cast<int>(oi), static_cast<int>(rco), static_cast<int>(rdo)),
                kSource);
    LogDispatch(5, LogMakeString("  actor size: %ld", oscwGetActorSize()), kSource);
    LogDispatch(5, LogMakeString("  unit free: %ld", oscwGetUnitFreeMem()), kSource);
}

void TreflectORB::MessageLog::add(const ProcessedMessage &message) {
    Locked lock(lock_);
    std::array<ProcessedMessage, 5> &messages = records_.messages;
    if (records_.count == messages.size()) {
        std::move(messages.begin() + 1, messages.end(), messages.begin());
        --records_.count;
    }
    messages[records_.count++] = message;
}

TreflectORB::MessageLog::Records TreflectORB::MessageLog::records() {
    Locked lock(lock_);
    return records_;
}

void TreflectORB::dumpMessages() {
    for (const ProcessedMessage &message : processed_.records()) {
        LogDispatch(6,
                    LogMakeString("Processed Msg : Sender:0x%08X Destination:0x%08X CC:0x%X MC:0x%X", message.sender,
                                  message.destination, message.classCode, message.methodCode),
                    kSource);
    }
    for (const ProcessedMessage &message : received_.records()) {
        LogDispatch(6,
                    LogMakeString("Recieved Msg : Sender:0x%08X Destination:0x%08X Transaction ID:%X ", message.sender,
                                  message.destination, message.transactionId),
                    kSource);
    }
    std::size_t queued = 0;
    {
        Locked lock(*queue_);
        queued = queue_->messages.size();
    }
    LogDispatch(6, LogMakeString("Size of RMI msg queue : %zu", queued), kSource);
}
