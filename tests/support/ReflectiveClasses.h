#pragma once

#include "objects/REFLECT_object.h"
#include "objects/REFLECT_serverObject.h"
#include "reflection/REFLECT_metaObject.h"
#include "rmi/IPPRMI_exception.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <string>

namespace Testing {

// What a compiler of interfaces would write for
//
//     exception Busy {
//         string reason;
//         unsigned long retryAfter;
//     };
//     interface Equipment {
//         readonly attribute string serial;
//         readonly attribute Equipment carrier;
//         void reset();
//     };
//     interface Port : Equipment {
//         attribute string label;
//         attribute unsigned long speed;
//         readonly attribute unsigned long faults;
//         readonly attribute sequence<Equipment> members;
//         readonly attribute Equipment lanes[4];
//         unsigned long setRate(in unsigned long bps, inout string mode, out unsigned long effective) raises (Busy);
//         oneway void blink();
//     };
//
// and, in EquipmentImpl and PortImpl, what an application adds.

class EquipmentSkeleton;
class PortSkeleton;
using Lanes = std::array<TreflectObject, 4>;

struct Busy {
    static constexpr unsigned getExceptionClassType() noexcept { return 0x2B5C0D11U; }

    std::string reason;
    unsigned retryAfter = 0;
};
TipprmiStream &operator<<(TipprmiStream &stream, const Busy &exception);
TipprmiStream &operator>>(TipprmiStream &stream, Busy &exception);

/** Handles have no fields, so they all come from one pool. */
class Equipment : public TreflectObject {
public:
    enum : unsigned { CLASS_ID = 0x7A11C0E1U };
    enum : unsigned { mcGetserial = 1, mcGetcarrier, mcReset, mcEnd };

    Equipment() = default;
    explicit Equipment(const TipprmiOID &oid) : TreflectObject(oid) {}
    explicit Equipment(const TipprmiObjectSkeleton *object) : TreflectObject(object) {}
    Equipment(const TreflectObject &other) : TreflectObject(other) {}

    std::string serial() const;
    TreflectObject carrier() const;
    void reset() const;
};

class Port : public Equipment {
public:
    enum : unsigned { CLASS_ID = 0x5A3C10F1U };
    enum : unsigned {
        mcGetlabel = Equipment::mcEnd,
        mcSetlabel,
        mcGetspeed,
        mcSetspeed,
        mcGetfaults,
        mcGetmembers,
        mcGetlanes,
        mcSetRate,
        mcBlink
    };

    Port() = default;
    explicit Port(const TipprmiOID &oid) : Equipment(oid) {}
    explicit Port(const TipprmiObjectSkeleton *object) : Equipment(object) {}
    Port(const TreflectObject &other) : Equipment(other) {}

    std::string label() const;
    void label(const std::string &value) const;
    unsigned speed() const;
    void speed(unsigned value) const;
    unsigned faults() const;
    TipprmiSequence<TreflectObject> members() const;
    Lanes lanes() const;
    /** Busy may be raised. */
    unsigned setRate(unsigned bps, std::string &mode, unsigned &effective,
                     TipprmiExceptionContainer *raised = nullptr) const;
    void blink() const;
};

/** Of both classes; there from the start of the process, unless it was started with REFLECTORB_TEST_NO_CLASSES, and
 *  never destroyed. */
class EquipmentMeta : public TreflectMetaObject {
public:
    static EquipmentMeta *instance();
    void completeMetaInformation() override;

private:
    EquipmentMeta() : TreflectMetaObject("Equipment", Equipment::CLASS_ID) {}
};

class PortMeta : public TreflectMetaObject {
public:
    static PortMeta *instance();
    void completeMetaInformation() override;

private:
    PortMeta() : TreflectMetaObject("Port", Port::CLASS_ID) {}
};

class EquipmentSkeleton : public TreflectServerObject {
public:
    EquipmentSkeleton(const TipprmiOID &oid, const TreflectObject *parent, const std::string &name)
        : TreflectServerObject(oid, parent, name) {
        dropClient_();
    }
    Equipment *getClient() const override;
    unsigned getServerClassId() const override { return Equipment::CLASS_ID; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override;
    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

    virtual std::string serial() = 0;
    virtual TreflectObject carrier() = 0;
    virtual void reset() = 0;
};

class PortSkeleton : public EquipmentSkeleton {
public:
    PortSkeleton(const TipprmiOID &oid, const TreflectObject *parent, const std::string &name)
        : EquipmentSkeleton(oid, parent, name) {
        dropClient_();
    }
    Port *getClient() const override;
    unsigned getServerClassId() const override { return Port::CLASS_ID; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override;
    using EquipmentSkeleton::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

    virtual std::string label() = 0;
    virtual void label(const std::string &value) = 0;
    virtual unsigned speed() = 0;
    virtual void speed(unsigned value) = 0;
    virtual unsigned faults() = 0;
    virtual TipprmiSequence<TreflectObject> members() = 0;
    virtual Lanes lanes() = 0;
    virtual unsigned setRate(unsigned bps, std::string &mode, unsigned &effective,
                             TipprmiExceptionContainer &raised) = 0;
    virtual void blink() = 0;
};

/** Answers from fields and counts its calls. */
template <class Skeleton>
class EquipmentPart : public Skeleton {
public:
    explicit EquipmentPart(const char *oid, const TreflectObject *parent = nullptr, const std::string &name = "")
        : Skeleton(TipprmiOID(oid, NamespaceId(1)), parent, name) {}

    std::string serial() override { return serialNumber; }
    TreflectObject carrier() override {
        ++carrierReads;
        return carriedBy;
    }
    void reset() override { ++resets; }

    std::string serialNumber;
    TreflectObject carriedBy;
    std::atomic<int> carrierReads{0};
    std::atomic<int> resets{0};
};

using EquipmentImpl = EquipmentPart<EquipmentSkeleton>;

class PortImpl : public EquipmentPart<PortSkeleton> {
public:
    using EquipmentPart::EquipmentPart;

    std::string label() override { return text; }
    void label(const std::string &value) override { text = value; }
    unsigned speed() override { return ownSpeed; }
    void speed(unsigned value) override { ownSpeed = value; }
    unsigned faults() override { return faultCount; }
    TipprmiSequence<TreflectObject> members() override {
        ++memberReads;
        return memberList;
    }
    Lanes lanes() override { return laneList; }
    /** Ten times the rate, of which at most 1000 takes effect; "?" is put behind the mode. Or Busy, if that is asked
     *  for. */
    unsigned setRate(unsigned bps, std::string &mode, unsigned &effective, TipprmiExceptionContainer &raised) override {
        ++rateCalls;
        if (busy.retryAfter != 0) {
            raised.raise(busy);
            return 0;
        }
        mode += "?";
        effective = std::min(bps * 10, 1000U);
        return bps * 10;
    }
    void blink() override { ++blinks; }

    std::string text;
    unsigned ownSpeed = 0;
    unsigned faultCount = 0;
    Busy busy;
    TipprmiSequence<TreflectObject> memberList;
    Lanes laneList;
    std::atomic<int> memberReads{0};
    std::atomic<int> rateCalls{0};
    std::atomic<int> blinks{0};
};

} // namespace Testing
