#include "orb/ReflectMessage.h"

#include "orb/ByteOrder_p.h"
#include "orb/REFLECT_orb.h"
#include "platform/Log.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr unsigned kAlignment = 4;

Transport::AddressedMessage allocate(const TreflectORB *orb, unsigned size, unsigned spare) {
    if (orb == nullptr || size > Transport::kMaxMessageSize - TreflectMessage::kHeaderSize) {
        return {};
    }
    return orb->allocateMessage(size + TreflectMessage::kHeaderSize, kAlignment, spare);
}

constexpr const char *kTypeTexts[] = {"tUndef", "tRslve", "tPayld", "tOCN  ", "tODN  ", "tOCNSU",
                                      "tODNSU", "tOCNUN", "tODNUN", "tOrbAp", "tPfCnt"};
constexpr const char *kKindTexts[] = {"kUndef", "kMsg  ", "kRequ.", "kResp.", "kNoDes", "kReFai"};

template <std::size_t N>
const char *textOf(const char *const (&texts)[N], std::uint32_t value, const char *unknown) noexcept {
    return value < N ? texts[value] : unknown;
}

} // namespace

TreflectMessage::TreflectMessage(const TreflectORB *orb, const unsigned &transactionId, unsigned size)
    : message_(allocate(orb, size, 0)) {
    setWord(0, transactionId);
}

TreflectMessage::TreflectMessage(const TreflectORB *orb, const TreflectMessage &other, unsigned size, unsigned spare)
    : message_(allocate(orb, size, spare)) {
    unsigned char *own = message_.buf();
    if (own != nullptr && other.hasHeader()) {
        std::memcpy(own, other.message_.buf(), kHeaderSize + std::min(size, other.size()));
    }
}

const unsigned char *TreflectMessage::buf() const noexcept {
    return hasHeader() ? message_.buf() + kHeaderSize : nullptr;
}

unsigned char *TreflectMessage::buf() noexcept {
    unsigned char *bytes = hasHeader() ? message_.buf() : nullptr;
    return bytes != nullptr ? bytes + kHeaderSize : nullptr;
}

bool TreflectMessage::extend(unsigned size) noexcept {
    return hasHeader() && size <= Transport::kMaxMessageSize - kHeaderSize && message_.extend(size + kHeaderSize);
}

std::uint32_t TreflectMessage::word(unsigned offset) const noexcept {
    return hasHeader() ? Wire::loadBigEndian(message_.buf() + offset) : 0;
}

void TreflectMessage::setWord(unsigned offset, std::uint32_t value) noexcept {
    unsigned char *bytes = hasHeader() ? message_.buf() : nullptr;
    if (bytes != nullptr) {
        Wire::storeBigEndian(bytes + offset, value);
    }
}

std::string TreflectMessage::typeToStr(const type_t &type) {
    return textOf(kTypeTexts, type, "t?????");
}
std::string TreflectMessage::kindToStr(const kind_t &kind) {
    return textOf(kKindTexts, kind, "k?????");
}

bool TreflectMessage::testValidation(kind_t expectedKind, int number, const char *text, bool verbose, int) const {
    const Transport::TerminationId to = destination();
    const Transport::TerminationId from = originator();
    // In this order; the last fault found is the one that counts.
    const bool faults[] = {to.value() == 0,  from.value() == 0, from == to,
                           type() == tUndef, kind() == kUndef,  expectedKind != kUndef && kind() != expectedKind};
    int error = 0;
    for (int i = 0; i < 6; ++i) {
        error = faults[i] ? i + 1 : error;
    }
    const char *typeText = textOf(kTypeTexts, type(), "t?????");
    const char *kindText = textOf(kKindTexts, kind(), "k?????");
    const char *expectedText = textOf(kKindTexts, expectedKind, "k?????");
    text = text != nullptr ? text : "";
    if (error != 0) {
        LogDispatch(6,
                    LogMakeString(" Error:  ReflMsg err=%2d: %s, %s(%s), des=%08X, org=%08X, trAcId=%08X (%2d: %s)",
                                  error, typeText, kindText, expectedText, to.value(), from.value(), transactionId(),
                                  number, text),
                    "ReflectMessage");
    } else if (verbose) {
        LogDispatch(5,
                    LogMakeString("    ReflMsg output: %s, %s(%s), des=%08X, org=%08X, trAcId=%08X (%2d: %s)", typeText,
                                  kindText, expectedText, to.value(), from.value(), transactionId(), number, text),
                    "ReflectMessage");
    }
    return error == 0 || error == 1;
}
