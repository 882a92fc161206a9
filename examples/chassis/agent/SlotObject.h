#pragma once

#include "CallsAtWork.h"
#include "Kernel.h"
#include "LinkMonitor.h"
#include "PortObject.h"
#include "Slot.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

/**
 * The slot with its ports. It stands below the chassis, which may come later than it, go, and come again; so it is not
 * tied to one parent as objects usually are. With the run permission, which everything that tells others gives up for a
 * while; all that changes the ports is called by one thread.
 */
class SlotObject : public OutlivesCalls<SlotSkeleton> {
public:
    SlotObject(unsigned number, Kernel &kernel);
    /** After clear(). */
    ~SlotObject() override;

    unsigned number(Raised &raised) override;
    unsigned pid(Raised &raised) override;
    TipprmiSequence<Port> ports(Raised &raised) override;
    TreflectObject getParent() const override;
    std::string getAbsName() const override;

    /** There is a chassis: becomes a child of it. False if it has not become one, for the chassis may be gone again. */
    bool attach(const TreflectObject &chassis);
    /** The interfaces as they are now, all of them: makes, updates and deletes ports. */
    void take(const std::vector<Link> &links);
    /** What has happened since. */
    void take(const LinkEvent &event);
    /** Deletes all ports. */
    void clear();

private:
    using Ports = std::map<std::string, std::unique_ptr<PortObject>>; // by name

    void present(const Link &link);
    void remove(const std::string &name);

    const unsigned number_;
    Kernel &kernel_;
    TreflectObject chassis_;
    Ports ports_;
    std::map<unsigned, std::string> names_; // of the ports, by the index of the interface
};
