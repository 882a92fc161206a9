#pragma once

#include "objects/REFLECT_object.h"
#include "observation/REFLECT_Observable.h"
#include "platform/Export.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/IPPRMI_sequence.h"

#include <map>
#include <string>

/**
 * Server side of a reflective object: a skeleton with a name in a tree of objects, and with observers. Classes derive
 * from it, answer their own method codes in dispatch() and leave all others to it. As for every skeleton: make and
 * delete it inside TreflectHandlerState(true), and not while one of its methods runs or the observers of one are told;
 * only for those that every object has the destructor waits. A parent in another actor is told by a call, in the
 * constructor and in the destructor; other threads may run meanwhile.
 */
class REFLECTORB_API TreflectServerObject : public TipprmiObjectSkeleton, public TreflectObservable {
public:
    /** `parent` null: a root. The name ends at its first zero byte. Without memory for it: a root without name; for a
     *  client: a root. May block for a parent in another actor; waiting for its answer is no cancellation point. */
    TreflectServerObject(const TipprmiOID &oid, const TreflectObject *parent, const std::string &name);
    /** The parent, if it is still there, forgets the name, whatever object it has under it by now. May block for that,
     *  and until the methods have returned that other threads are in. At the end of a thread, or of the process, a
     *  parent in another actor is told without waiting for its answer. Not a cancellation point. */
    ~TreflectServerObject() override;

    using TipprmiObjectSkeleton::dispatch;
    /** The methods that every reflective object has, whatever the class code. */
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;
    /** A class that returns a client of its own type calls dropClient_() in its constructor. */
    TreflectObject *getClient() const override;

    // The tree is not locked: with the run permission. What copies a handle that found nothing looks its object up
    // again, which blocks: getParent(), getChild(), getChilds(), and registerChild() of such a child.

    virtual TreflectObject getParent() const;
    /** A handle of no object if there is none of the name. */
    virtual TreflectObject getChild(const std::string &name) const;
    /** By name. Without memory for all: the first ones. */
    virtual TipprmiSequence<TreflectObject> getChilds() const;
    /** In place of the child that had the name. Without memory a line in the log, and that one stays. */
    virtual void registerChild(const std::string &name, const TreflectObject &child);
    virtual void unregisterChild(const std::string &name);
    virtual unsigned getServerClassId() const = 0;
    /** The own class, then its ancestors. A client takes the first that it knows for the object's class. */
    virtual TipprmiSequence<unsigned> getServerClassIdSeq() const = 0;
    /** "/" before each name from the root down. Asks the parent, which may be in another actor. */
    virtual std::string getAbsName() const;
    virtual std::string getRelName() const;

    /**
     * Tells those that observe the creation, or the deletion, of objects of the class; `meta` null: of the object's own
     * class, and if none of its classes is known nobody, with a line in the log. The owner calls the one after the
     * outermost constructor, the other before the outermost destructor. Blocks until all have been told; the object may
     * be deleted meanwhile. Takes the run permission itself and gives it up for the observers, which run without it.
     */
    virtual void sendCreationEvent(const TreflectMetaObject *meta) const;
    virtual void sendDeletionEvent(const TreflectMetaObject *meta) const;

    using TreflectObservable::notifyObservers;
    /** Tells the observers of a method, with a handle of this object as source. `when` 0: before, else after the call.
     *  False if one of them said so, and before the call also if memory was too short to tell all. With
     *  the run permission, which is given up while those elsewhere are told; blocks until all have been. */
    virtual bool notifyObservers(unsigned when, const unsigned &classCode, const unsigned &methodCode,
                                 const TipprmiSequence<TipprmiAny> &parameters);

    const char *objectName() const noexcept { return name_.c_str(); }

private:
    TreflectServerObject(const TipprmiOID &oid, std::string &&name);
    void joinParent(const TreflectObject &parent);
    bool depart();
    const TreflectMetaObject *eventClass(const TreflectMetaObject *meta) const;

    using Children = std::map<std::string, TreflectObject>;
    using Method = void (TreflectServerObject::*)(unsigned cc, unsigned mc, TipprmiStream &request,
                                                  TipprmiStream &response);
    static Method builtIn(unsigned mc) noexcept;
    void answerRegisterObserver(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);
    void answerRemoveObserver(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);
    void answerAbsName(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);
    void answerRelName(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);
    void answerParent(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);
    void answerChild(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);
    void answerChilds(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);
    void answerRegisterChild(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);
    void answerUnregisterChild(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);
    void answerClassIds(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);

    const std::string name_; // up to 15 characters cost no memory of their own
    TreflectObject parent_;
    Children *children_ = nullptr; // owned; from the first one on
};
