#pragma once

#include "Counter64.h"
#include "PortCounters.h"
#include "PortRefused.h"
#include "PortState.h"
#include "objects/REFLECT_object.h"
#include "objects/REFLECT_serverObject.h"
#include "reflection/REFLECT_metaObject.h"

#include <string>

/*
 * What a compiler of interfaces would write for
 *
 *     exception PortRefused { unsigned long code; string reason; };
 *     interface Port {
 *         readonly attribute string name;
 *         readonly attribute unsigned long index;
 *         readonly attribute string macAddress;
 *         readonly attribute unsigned long mtu;
 *         readonly attribute string adminState, operState;
 *         readonly attribute unsigned long speed;
 *         readonly attribute Counter64 rxBytes, txBytes, rxPackets, txPackets, rxErrors, txErrors, rxDrops, txDrops;
 *         void setMtu(in unsigned long mtu) raises(PortRefused);
 *         void setAdminState(in boolean up) raises(PortRefused);
 *         void counters(out PortCounters counters) raises(PortRefused);
 *         void stateChanged(in string adminState, in string operState, in unsigned long mtu);
 *     };
 *
 * Each operation can tell with what exception it ended: type 0 for none, 1 if the object could not be reached, or
 * PortRefused: `PortRefused refused; if (raised.holds(refused)) ...`. Values are then zeros and empty texts.
 */
class Port : public TreflectObject {
public:
    using Raised = TipprmiExceptionContainer;

    enum : unsigned { CLASS_ID = 0x3B7D5A21U };
    enum : unsigned {
        mcGetname = 1,
        mcGetindex,
        mcGetmacAddress,
        mcGetmtu,
        mcGetadminState,
        mcGetoperState,
        mcGetspeed,
        mcGetrxBytes,
        mcGettxBytes,
        mcGetrxPackets,
        mcGettxPackets,
        mcGetrxErrors,
        mcGettxErrors,
        mcGetrxDrops,
        mcGettxDrops,
        mcSetMtu,
        mcSetAdminState,
        mcCounters,
        mcStateChanged
    };

    Port() = default;
    explicit Port(const TipprmiOID &oid) : TreflectObject(oid) {}
    explicit Port(const TipprmiObjectSkeleton *object) : TreflectObject(object) {}
    Port(const TreflectObject &other) : TreflectObject(other) {}

    std::string name(Raised *raised = nullptr) const;
    /** The kernel's number of the interface. */
    unsigned index(Raised *raised = nullptr) const;
    /** "02:00:5e:10:00:ff"; empty for interfaces without. */
    std::string macAddress(Raised *raised = nullptr) const;
    /** Bytes. */
    unsigned mtu(Raised *raised = nullptr) const;
    /** See PortState. */
    std::string adminState(Raised *raised = nullptr) const;
    std::string operState(Raised *raised = nullptr) const;
    /** Mbit/s; 0 if the kernel does not know. */
    unsigned speed(Raised *raised = nullptr) const;
    Counter64 rxBytes(Raised *raised = nullptr) const;
    Counter64 txBytes(Raised *raised = nullptr) const;
    Counter64 rxPackets(Raised *raised = nullptr) const;
    Counter64 txPackets(Raised *raised = nullptr) const;
    Counter64 rxErrors(Raised *raised = nullptr) const;
    Counter64 txErrors(Raised *raised = nullptr) const;
    Counter64 rxDrops(Raised *raised = nullptr) const;
    Counter64 txDrops(Raised *raised = nullptr) const;

    void setMtu(unsigned mtu, Raised *raised = nullptr) const;
    void setAdminState(bool up, Raised *raised = nullptr) const;
    void counters(PortCounters &counters, Raised *raised = nullptr) const;
    /** For observers: the port's own actor calls it when the kernel has reported a change. It does nothing itself. */
    void stateChanged(const std::string &adminState, const std::string &operState, unsigned mtu,
                      Raised *raised = nullptr) const;
};

class PortSkeleton : public TreflectServerObject {
public:
    using Raised = TipprmiExceptionContainer;

    PortSkeleton(const TipprmiOID &oid, const TreflectObject *parent, const std::string &name)
        : TreflectServerObject(oid, parent, name) {
        dropClient_();
    }
    Port *getClient() const override;
    unsigned getServerClassId() const override { return Port::CLASS_ID; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override;
    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

    virtual std::string name(Raised &raised) = 0;
    virtual unsigned index(Raised &raised) = 0;
    virtual std::string macAddress(Raised &raised) = 0;
    virtual unsigned mtu(Raised &raised) = 0;
    virtual std::string adminState(Raised &raised) = 0;
    virtual std::string operState(Raised &raised) = 0;
    virtual unsigned speed(Raised &raised) = 0;
    virtual Counter64 rxBytes(Raised &raised) = 0;
    virtual Counter64 txBytes(Raised &raised) = 0;
    virtual Counter64 rxPackets(Raised &raised) = 0;
    virtual Counter64 txPackets(Raised &raised) = 0;
    virtual Counter64 rxErrors(Raised &raised) = 0;
    virtual Counter64 txErrors(Raised &raised) = 0;
    virtual Counter64 rxDrops(Raised &raised) = 0;
    virtual Counter64 txDrops(Raised &raised) = 0;
    virtual void setMtu(unsigned mtu, Raised &raised) = 0;
    virtual void setAdminState(bool up, Raised &raised) = 0;
    virtual void counters(PortCounters &counters, Raised &raised) = 0;
    virtual void stateChanged(const std::string &adminState, const std::string &operState, unsigned mtu,
                              Raised &raised) = 0;
};

/** The class at run time. The get operation of each attribute has the type of the value as its parameter "value":
 *  "string", "unsigned long" or "Counter64". */
class PortMeta : public TreflectMetaObject {
public:
    static PortMeta *instance();
    void completeMetaInformation() override;

private:
    PortMeta() : TreflectMetaObject("Port", Port::CLASS_ID) {}
};
