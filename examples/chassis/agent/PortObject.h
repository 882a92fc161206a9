#pragma once

#include "CallsAtWork.h"
#include "Kernel.h"
#include "Port.h"

/** A network interface as an object of the tree. It asks the kernel at every read, so it knows nothing old. */
class PortObject : public OutlivesCalls<PortSkeleton> {
public:
    PortObject(unsigned slot, const TreflectObject &parent, const Link &link, Kernel &kernel);
    ~PortObject() override;

    std::string name(Raised &raised) override;
    unsigned index(Raised &raised) override;
    std::string macAddress(Raised &raised) override;
    unsigned mtu(Raised &raised) override;
    std::string adminState(Raised &raised) override;
    std::string operState(Raised &raised) override;
    unsigned speed(Raised &raised) override;
    Counter64 rxBytes(Raised &raised) override;
    Counter64 txBytes(Raised &raised) override;
    Counter64 rxPackets(Raised &raised) override;
    Counter64 txPackets(Raised &raised) override;
    Counter64 rxErrors(Raised &raised) override;
    Counter64 txErrors(Raised &raised) override;
    Counter64 rxDrops(Raised &raised) override;
    Counter64 txDrops(Raised &raised) override;
    void setMtu(unsigned mtu, Raised &raised) override;
    void setAdminState(bool up, Raised &raised) override;
    void counters(PortCounters &counters, Raised &raised) override;
    void stateChanged(const std::string &adminState, const std::string &operState, unsigned mtu,
                      Raised &raised) override;

    unsigned linkIndex() const noexcept { return index_; }
    const std::string &linkName() const noexcept { return name_; }
    /** The kernel has told of the interface: tells observers if its state is another one than before. Blocks as long
     *  as that takes. */
    void update(const Link &link);

private:
    Link read(Raised &raised);
    static PortState stateOf(const Link &link);

    Kernel &kernel_;
    const unsigned index_;
    const std::string name_;
    PortState state_; // that observers know
};
