#include "SlotObject.h"

#include "Paths.h"

#include <set>
#include <unistd.h>
#include <utility>

SlotObject::SlotObject(unsigned number, Kernel &kernel)
    : OutlivesCalls(Paths::id(Paths::slot(number)), nullptr, Paths::slotName(number)), number_(number),
      kernel_(kernel) {}

SlotObject::~SlotObject() {
    if (chassis_.isConnected()) {
        chassis_.unregisterChild(objectName());
    }
    endCalls();
}

unsigned SlotObject::number(Raised &) {
    return number_;
}

unsigned SlotObject::pid(Raised &) {
    return static_cast<unsigned>(::getpid());
}

TipprmiSequence<Port> SlotObject::ports(Raised &) {
    TipprmiSequence<Port> ports;
    for (const auto &entry : ports_) {
        ports.push_back(*entry.second->getClient()); // connected, so the copy does not block
    }
    return ports;
}

TreflectObject SlotObject::getParent() const {
    return chassis_;
}

std::string SlotObject::getAbsName() const {
    return Paths::slot(number_);
}

bool SlotObject::attach(const TreflectObject &chassis) {
    chassis_ = chassis;
    chassis.registerChild(objectName(), *getClient());
    return chassis.getChild(objectName()).getServer() == this;
}

void SlotObject::take(const std::vector<Link> &links) {
    std::set<unsigned> there;
    for (const Link &link : links) {
        there.insert(link.index);
    }
    const std::map<unsigned, std::string> known = names_;
    for (const auto &[index, name] : known) {
        if (there.count(index) == 0) {
            remove(name);
        }
    }
    for (const Link &link : links) {
        present(link);
    }
}

void SlotObject::take(const LinkEvent &event) {
    if (!event.gone) {
        present(event.link);
        return;
    }
    const auto found = names_.find(event.link.index);
    if (found != names_.end()) {
        remove(std::string(found->second));
    }
}

void SlotObject::present(const Link &link) {
    const auto known = names_.find(link.index);
    if (known != names_.end() && known->second == link.name) {
        ports_.at(link.name)->update(link);
        return;
    }
    if (known != names_.end()) { // it has another name now, which is another place in the tree
        remove(std::string(known->second));
    }
    if (ports_.count(link.name) != 0) { // of one that was renamed or is gone; the news of that is yet to come
        remove(link.name);
    }
    auto port = std::make_unique<PortObject>(number_, *getClient(), link, kernel_);
    const PortObject &made = *port;
    ports_.emplace(link.name, std::move(port));
    names_.emplace(link.index, link.name);
    made.sendCreationEvent(PortMeta::instance());
}

void SlotObject::remove(const std::string &name) {
    const auto found = ports_.find(name);
    const std::unique_ptr<PortObject> port = std::move(found->second);
    ports_.erase(found);
    names_.erase(port->linkIndex());
    port->sendDeletionEvent(PortMeta::instance());
}

void SlotObject::clear() {
    while (!ports_.empty()) {
        remove(std::string(ports_.begin()->first));
    }
}
