#pragma once

#include "orb/NamespaceId.h"
#include "platform/Export.h"
#include "rmi/IPPRMI_rcPtr.h"
#include "rmi/IPPRMI_stream.h"

#include <cstddef>
#include <string>

/**
 * Name of a remote object: a string and the namespace in which it is valid. A value; copies share the string. An
 * identifier without string equals nothing, itself included, and is ordered as equivalent to everything else in its
 * namespace: do not use such identifiers as keys of a container.
 */
class REFLECTORB_API TipprmiOID {
public:
    /** The string behind the identifiers that share it; never changed once it is there. */
    class REFLECTORB_API StringValue : public TipprmiRCObject {
    public:
        explicit StringValue(const char *text) { init(text); }
        StringValue(const StringValue &other) : TipprmiRCObject(other) { init(other.data_); }
        StringValue &operator=(const StringValue &) = delete;
        ~StringValue() override;

        /** Null for an empty string, or if there was no memory for it. */
        const char *data() const noexcept { return data_; }

    private:
        void init(const char *text);

        char *data_ = nullptr;
    };

    /** The string is copied; null and the empty one are the same. */
    TipprmiOID(const char *id, NamespaceId ns);
    TipprmiOID(const std::string &id, NamespaceId ns);
    TipprmiOID(const TipprmiOID &other) = default;
    TipprmiOID(TipprmiOID &&other) noexcept = default;
    TipprmiOID &operator=(const TipprmiOID &other) = default;
    TipprmiOID &operator=(TipprmiOID &&other) noexcept = default;
    ~TipprmiOID() = default;

    /** Takes a new string; identifiers that shared the old one keep it. */
    void init(const char *id);
    void setIdString(const char *id) { init(id); }
    /** Null without string; belongs to the identifier. */
    const char *getIdString() const noexcept { return value_ ? value_->data() : nullptr; }
    NamespaceId getNamespaceId() const noexcept { return namespaceId_; }

    bool isEqual(const TipprmiOID &other) const noexcept;
    bool operator==(const TipprmiOID &other) const noexcept { return isEqual(other); }
    bool operator!=(const TipprmiOID &other) const noexcept { return !isEqual(other); }
    /** By namespace, as a signed number, then by string. */
    bool operator<(const TipprmiOID &other) const noexcept;

    /** The string with a suffix, always in namespace 1; a copy of the identifier if it has no string. */
    TipprmiOID operator+(const char *suffix) const;
    TipprmiOID operator+(const std::string &suffix) const;

private:
    TipprmiRCPtr<StringValue> value_;
    NamespaceId namespaceId_;
};

/** Length and characters of the string (a length of 0 without string), then the namespace; each number in 4 bytes.
 *  Reading keeps the namespace of the variable it is read into. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiOID &id);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TipprmiOID &id);
