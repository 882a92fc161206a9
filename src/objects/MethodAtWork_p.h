#pragma once

class TreflectServerObject;

/**
 * That the calling thread is in a method of an object in which it may give the run permission up: the object is not
 * freed under it. For automatic storage only; costs no memory, whatever the number of objects. Made with the run
 * permission.
 */
class MethodAtWork {
public:
    /** Null: of no object. */
    explicit MethodAtWork(const TreflectServerObject *object) noexcept;
    ~MethodAtWork();
    MethodAtWork(const MethodAtWork &) = delete;
    MethodAtWork &operator=(const MethodAtWork &) = delete;

    /** Whether another thread is in a method of the object. */
    static bool isOtherIn(const TreflectServerObject &object) noexcept;
    /** Waits until there is none, without the run permission, whatever the depth at which it is held; new ones must not
     *  come. Not a cancellation point. False only in a thread at its end, which waits for 2 s, once: they may be in the
     *  object for ever. Such a thread takes the permission back within 2 s or not at all. */
    static bool awaitOthers(const TreflectServerObject &object);
    /** For when that was in vain: the other threads that are in the object do not go on in it. With the run permission
     *  none of them is at work right now; without it one may be, which goes on until its next goOn(). */
    static void abandon(const TreflectServerObject &object) noexcept;
    /** For methods of objects, after whatever may have given the run permission up. Does not return if the object was
     *  abandoned: the thread waits for the end of the process. */
    static void goOn();

private:
    class List;

    const TreflectServerObject *const object_;
    unsigned long thread_ = 0;
    bool isAbandoned_ = false;
    MethodAtWork *previous_ = nullptr;
    MethodAtWork *next_ = nullptr;
};
