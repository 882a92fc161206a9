#pragma once

#include "observation/REFLECT_Observer.h"
#include "observation/REFLECT_OrbObserver.h"
#include "view/Event.h"
#include "view/EventQueue.h"

#include <list>
#include <map>

namespace View {

/**
 * Subscribes to all that happens to the ports and the brokers of the unit, and gives it out as events, one after the
 * other. There is one in a process and it lives as long: a callback may be under way whenever it would be destroyed,
 * and brokers that tell of something find out by themselves that the process is gone.
 */
class UnitEvents {
public:
    static UnitEvents &instance();
    UnitEvents(const UnitEvents &) = delete;
    UnitEvents &operator=(const UnitEvents &) = delete;

    /** What is there already is reported first. Blocks while all brokers of the unit are asked. */
    void subscribe();
    /**
     * Waits for the next event; false once stopped. A port that has come is asked how it is and, from then on, for
     * notice of changes: so this blocks if its actor does not answer. Without the run permission.
     */
    bool next(Event &event);
    void stop() { queue_.close(); }
    /** When next() has returned false for good: ports tell no more of their changes. Waits at most 2 s for those whose
     *  actor does not answer; they find out by themselves. Without the run permission. */
    void unsubscribe();

private:
    /** An event as a callback gets it: what takes calls is found out by next(). */
    struct Raw {
        Event event;
        TreflectObject port; // portFound, portCreated
    };

    class PortObserver : public TreflectObserver {
    public:
        PortObserver(UnitEvents &events, Event::Kind kind);
        bool detected() override;

    private:
        UnitEvents &events_;
        const Event::Kind kind_;
    };
    class ChangeObserver : public TreflectObserver {
    public:
        explicit ChangeObserver(UnitEvents &events);
        bool detected() override;

    private:
        UnitEvents &events_;
    };
    class BrokerObserver : public TreflectOrbObserverIf {
    public:
        explicit BrokerObserver(UnitEvents &events) : events_(events) {}
        void orbAppearance(const Transport::TerminationId &id, const Appear_t &type) override;

    private:
        UnitEvents &events_;
    };

    UnitEvents();
    void push(Event::Kind kind, const Transport::TerminationId &broker, const TreflectObject *port);
    bool complete(Raw &raw);
    void askPort(Raw &raw);
    void verifyPorts(const Event &cameNow);

    EventQueue<Raw> queue_;
    std::map<ObjectKey, TreflectObject> ports_; // this and the next: of the thread that takes events
    std::list<Raw> missed_;                     // what nobody told
    PortObserver created_;
    PortObserver existing_;
    PortObserver deleted_;
    ChangeObserver changed_;
    BrokerObserver brokers_;
};

} // namespace View
