#include "rmi/IPPRMI_stream.h"

#include "orb/ByteOrder_p.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Log.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <utility>

namespace {

constexpr const char *kSource = "IPPRMI_stream";
constexpr int kModestLength = 1024 * 1024;
constexpr unsigned kModestCount = 65536;

/** All streams take their messages from the broker of the unit's namespace. */
class Broker {
public:
    Broker() : pin_(1) {}

    TreflectMessage allocate(int dataSize) const {
        return pin_.get() != nullptr ? pin_.get()->allocateRequest(static_cast<unsigned>(dataSize) + 4U)
                                     : TreflectMessage();
    }
    TreflectMessage reallocate(const TreflectMessage &message, unsigned size, unsigned spare) const {
        return pin_.get() != nullptr ? pin_.get()->reallocateMessage(message, size, spare) : TreflectMessage();
    }

private:
    SingletonInstances::Pin pin_;
};

} // namespace

TipprmiStream::TipprmiStream(int size) : message_(Broker().allocate(std::max(size, 1))) {
    // A fresh message is all zeros, the write position included.
    checkRange();
}

TipprmiStream::TipprmiStream(const void *data, int size) : message_(Broker().allocate(std::max(size, 0))) {
    unsigned char *own = getDataPtr();
    if (own != nullptr && size > 0) {
        iptr_(size);
        if (data != nullptr) {
            std::memcpy(own, data, static_cast<unsigned>(size));
        }
    }
    checkRange();
}

TipprmiStream::TipprmiStream(const TreflectMessage &message, bool clear)
    : TipprmiStream(TreflectMessage(message), clear) {}

TipprmiStream::TipprmiStream(TreflectMessage &&message, bool clear) : message_(std::move(message)) {
    if (clear) {
        this->clear();
    }
    checkRange();
}

TipprmiStream::TipprmiStream(const TipprmiStream &other)
    : optr_(other.optr_), message_(other.message_), stopped_(other.stopped_), refused_(other.refused_),
      reserved_(other.reserved_) {
    checkRange();
}

TipprmiStream::TipprmiStream(TipprmiStream &&other) noexcept
    : optr_(std::exchange(other.optr_, 0)), message_(std::move(other.message_)),
      stopped_(std::exchange(other.stopped_, false)), refused_(std::exchange(other.refused_, false)),
      reserved_(std::exchange(other.reserved_, 0)) {}

TipprmiStream &TipprmiStream::operator=(const TipprmiStream &other) {
    if (this != &other) {
        optr_ = other.optr_;
        message_ = other.message_;
        stopped_ = other.stopped_;
        refused_ = other.refused_;
        reserved_ = other.reserved_;
        checkRange();
    }
    return *this;
}

TipprmiStream &TipprmiStream::operator=(TipprmiStream &&other) noexcept {
    if (this != &other) {
        optr_ = std::exchange(other.optr_, 0);
        message_ = std::move(other.message_);
        stopped_ = std::exchange(other.stopped_, false);
        refused_ = std::exchange(other.refused_, false);
        reserved_ = std::exchange(other.reserved_, 0);
    }
    return *this;
}

void TipprmiStream::setData(const void *data, int size) {
    size = std::max(size, 0);
    TreflectMessage replaced = Broker().reallocate(message_, static_cast<unsigned>(size) + 4U, 0);
    if (replaced.buf() == nullptr) {
        reportRange();
        clear();
        stopped_ = true; // what was asked for is not there, and what was there before is not what was asked for
        return;
    }
    // The old message lives on until the copy is done: the bytes may be its own.
    std::swap(message_, replaced);
    reserved_ = 0;
    iptr_(size);
    if (size > 0) {
        unsigned char *own = getDataPtr();
        if (data != nullptr) {
            std::memcpy(own, data, static_cast<unsigned>(size));
        } else {
            std::memset(own, 0, static_cast<unsigned>(size));
        }
    }
    optr_ = 0;
    stopped_ = false;
    refused_ = false;
    checkRange();
}

void TipprmiStream::clear() {
    iptr_(0);
    if (iptr_() != 0) { // no memory for bytes of its own, and those that it shares are not to be read any more
        message_ = TreflectMessage();
    }
    optr_ = 0;
    stopped_ = false;
    refused_ = false;
}

const unsigned char *TipprmiStream::getDataPtr() const noexcept {
    return hasSizeWord() ? message_.buf() + kSizeWord : nullptr;
}

unsigned char *TipprmiStream::getDataPtr() noexcept {
    unsigned char *payload = hasSizeWord() ? message_.buf() : nullptr;
    return payload != nullptr ? payload + kSizeWord : nullptr;
}

int TipprmiStream::iptr_() const noexcept {
    return hasSizeWord() ? static_cast<int>(Wire::loadBigEndian(message_.buf())) : 0;
}

void TipprmiStream::iptr_(const int &position) noexcept {
    unsigned char *payload = hasSizeWord() ? message_.buf() : nullptr;
    if (payload != nullptr) {
        Wire::storeBigEndian(payload, static_cast<std::uint32_t>(position));
    }
}

int TipprmiStream::getRemaining() const noexcept {
    const int end = std::min(getDataSize(), getDataLimit());
    return end > optr_ ? end - optr_ : 0;
}

const unsigned char *TipprmiStream::getReadPtr() const noexcept {
    const unsigned char *data = getDataPtr();
    return data != nullptr ? data + optr_ : nullptr;
}

bool TipprmiStream::checkRange() const {
    const int limit = getDataLimit();
    const int position = iptr_();
    // On the wire the position has no sign: what reads as negative is far beyond every limit.
    if (position >= 0 && position <= limit) {
        return true;
    }
    reportRange();
    return false;
}

void TipprmiStream::reportRange() const {
    LogDispatch(
        3,
        LogMakeString("iptr_(%d) out of range(%d);this=%p", iptr_(), getDataLimit(), static_cast<const void *>(this)),
        kSource);
}

TreflectMessage &TipprmiStream::msg() {
    takeReserved(0);
    return message_;
}

void TipprmiStream::takeReserved(int size) {
    if (reserved_ != 0) {
        message_ = Broker().allocate(std::max(reserved_, size));
        reserved_ = 0;
    }
}

/** Makes room for `size` more bytes. */
bool TipprmiStream::allocate_(int size) {
    takeReserved(size);
    if (size <= getDataLimit() - iptr_()) {
        return true;
    }
    const auto needed = static_cast<unsigned>(iptr_()) + static_cast<unsigned>(size) + 4U;
    if (message_.extend(needed)) {
        return true;
    }
    // The limit is exact, but a body that grew once is likely to grow again: room behind it saves further copies.
    TreflectMessage larger = Broker().reallocate(message_, needed, needed / 2);
    if (larger.buf() == nullptr) {
        larger = Broker().reallocate(message_, needed, 0);
    }
    if (larger.buf() == nullptr) {
        reportRange();
        return false;
    }
    message_ = std::move(larger);
    return true;
}

bool TipprmiStream::inOwnData(const void *data) const noexcept {
    const auto *byte = static_cast<const unsigned char *>(data);
    const unsigned char *own = message_.buf();
    const std::less<const unsigned char *> before;
    return own != nullptr && !before(byte, own) && before(byte, own + message_.size());
}

TipprmiStream &TipprmiStream::marshall(const void *data, int size) {
    if (!checkRange() || size < 1 || data == nullptr || refused_) {
        return *this;
    }
    // Growing, and writing to shared bytes, replaces the buffer; the stream's own bytes are then read from the old one.
    const TreflectMessage old = inOwnData(data) ? message_ : TreflectMessage();
    if (!allocate_(size)) {
        refused_ = true;
        return *this;
    }
    const int position = iptr_();
    if (unsigned char *own = getDataPtr()) {
        std::memcpy(own + position, data, static_cast<unsigned>(size));
        iptr_(position + size);
    } else {
        reportRange(); // no memory for bytes of its own
        refused_ = true;
    }
    return *this;
}

TipprmiStream &TipprmiStream::unmarshall(void *data, int size) {
    if (!stopped_) {
        checkRange();
    }
    if (size < 1) {
        return *this;
    }
    if (!stopped_ && getRemaining() >= size) {
        if (data != nullptr) {
            std::memcpy(data, getReadPtr(), static_cast<unsigned>(size));
        }
        optr_ += size;
        return *this;
    }
    if (!stopped_) {
        failUnmarshalling(size);
    }
    if (data != nullptr) {
        std::memset(data, 0, static_cast<unsigned>(size));
    }
    return *this;
}

void TipprmiStream::failUnmarshalling(int size) {
    LogDispatch(6,
                LogMakeString("Err::unmarshall() request out of bounds: getDataSize(%d)-optr_(%d) < size(%d), "
                              "iptr_=%d, limit=%d",
                              getDataSize(), optr_, size, iptr_(), getDataLimit()),
                kSource);
    message_.testValidation(TreflectMessage::kUndef, 0, "", true, 0);
    stopped_ = true;
}

int TipprmiStream::admitLength(int length) {
    if (length <= std::max(getRemaining(), kModestLength)) {
        return length;
    }
    if (!stopped_) {
        failUnmarshalling(length);
    }
    return 0;
}

unsigned TipprmiStream::admitCount(unsigned count, unsigned elementSize) {
    if (count <= std::max(static_cast<unsigned>(getRemaining()) / std::max(elementSize, 1U), kModestCount)) {
        return count;
    }
    if (!stopped_) {
        const unsigned long long bytes = static_cast<unsigned long long>(count) * elementSize;
        failUnmarshalling(bytes < INT_MAX ? static_cast<int>(bytes) : INT_MAX);
    }
    return 0;
}

void TipprmiStream::printUnmarshallError(unsigned cc, unsigned mc) const {
    LogDispatch(4, LogMakeString("Unmarshall error on cc=0x%X, mc=%d", cc, static_cast<int>(mc)), "CallHelper");
}
