#include "rmi/IPPRMI_oid.h"

#include "platform/Log.h"
#include "rmi/StreamOperators.h"

#include <cstring>
#include <memory>

namespace {

constexpr NamespaceId kNamespaceOfJoined{1};

void reportNoMemory() {
    LogDispatch(3, LogMakeString("%s:%d Memory allocation for dataP_ falied.", "init", 44), "IPPRMI_oid");
}

} // namespace

TipprmiRCObject::~TipprmiRCObject() = default;

void TipprmiRCObject::removeReference() {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

TipprmiOID::StringValue::~StringValue() {
    delete[] data_;
}

void TipprmiOID::StringValue::init(const char *text) {
    if (text == nullptr || *text == '\0') {
        return;
    }
    const std::size_t length = std::strlen(text);
    data_ = new (std::nothrow) char[length + 1];
    if (data_ == nullptr) {
        reportNoMemory();
        return;
    }
    std::memcpy(data_, text, length);
    data_[length] = '\0';
}

TipprmiOID::TipprmiOID(const char *id, NamespaceId ns) : namespaceId_(ns) {
    init(id);
}
TipprmiOID::TipprmiOID(const std::string &id, NamespaceId ns) : TipprmiOID(id.c_str(), ns) {}

void TipprmiOID::init(const char *id) {
    StringValue *value = nullptr;
    if (id != nullptr) {
        value = new (std::nothrow) StringValue(id);
        if (value == nullptr) {
            reportNoMemory();
        }
    }
    value_ = TipprmiRCPtr<StringValue>(value);
}

bool TipprmiOID::isEqual(const TipprmiOID &other) const noexcept {
    const char *own = getIdString();
    const char *others = other.getIdString();
    return own != nullptr && others != nullptr && namespaceId_ == other.namespaceId_ && std::strcmp(own, others) == 0;
}

bool TipprmiOID::operator<(const TipprmiOID &other) const noexcept {
    if (namespaceId_ != other.namespaceId_) {
        return static_cast<int>(static_cast<unsigned>(namespaceId_)) <
               static_cast<int>(static_cast<unsigned>(other.namespaceId_));
    }
    const char *own = getIdString();
    const char *others = other.getIdString();
    return own != nullptr && others != nullptr && std::strcmp(own, others) < 0;
}

TipprmiOID TipprmiOID::operator+(const char *suffix) const {
    const char *own = getIdString();
    if (own == nullptr) {
        return *this;
    }
    suffix = suffix != nullptr ? suffix : "";
    const std::size_t ownLength = std::strlen(own);
    const std::size_t suffixLength = std::strlen(suffix);
    // On the heap: identifiers come from peers and may be long, stacks are small.
    const std::unique_ptr<char[]> joined(new (std::nothrow) char[ownLength + suffixLength + 1]);
    if (joined == nullptr) {
        reportNoMemory();
        return TipprmiOID(nullptr, kNamespaceOfJoined);
    }
    std::memcpy(joined.get(), own, ownLength);
    std::memcpy(joined.get() + ownLength, suffix, suffixLength + 1);
    return TipprmiOID(joined.get(), kNamespaceOfJoined);
}

TipprmiOID TipprmiOID::operator+(const std::string &suffix) const {
    return *this + suffix.c_str();
}

TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiOID &id) {
    return stream << id.getIdString() << id.getNamespaceId();
}

TipprmiStream &operator>>(TipprmiStream &stream, TipprmiOID &id) {
    char *text = nullptr;
    stream >> text;
    id.init(text != nullptr && *text != '\0' ? text : nullptr);
    delete[] text;
    NamespaceId ignored;
    return stream >> ignored;
}
