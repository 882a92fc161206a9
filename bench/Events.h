#pragma once

#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_Observer.h"
#include "reflection/REFLECT_metaObject.h"

#include <atomic>
#include <string>
#include <sys/types.h>

namespace Bench {

/** A reflective object whose class can be observed, with the operation "next", which can be, too. */
class Thing : public TreflectServerObject {
public:
    static constexpr unsigned kClass = 0x42454556;
    static constexpr unsigned kNext = 1;

    explicit Thing(const char *oid = nullptr);
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override;
    /** Number + 1, by way of the observers, as generated code calls it; 0 if one of them forbids it. */
    unsigned next(unsigned number);

    static TreflectMetaObject &meta();
};

/** Counts what it is told. */
class Counter : public TreflectObserver {
public:
    explicit Counter(const char *oid = nullptr);
    bool detected() override {
        ++told;
        return true;
    }
    std::atomic<unsigned> told{0};
};

/** Another actor of this program, with its standard input and output; its broker is known here. */
class Helper {
public:
    Helper(const std::string &mode, const std::string &argument);
    ~Helper();
    Helper(const Helper &) = delete;
    Helper &operator=(const Helper &) = delete;

    void tell(const std::string &line) const;
    /** Reads what the helper has written; ends the program if it does not. */
    template <class T>
    T read() const {
        T value{};
        readAll(&value, sizeof value);
        return value;
    }
    /** Its end, which is told to nobody. */
    void kill();
    pid_t pid() const noexcept { return pid_; }

private:
    void readAll(void *to, std::size_t size) const;

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
};

/** Watches the class Thing; writes how much it was told when its standard input closes. */
int serveWatch();
/** An observer of operations with this identifier; the same. */
int serveObserver(const std::string &name);
/** An object that answers no call; writes a byte for each call that comes. */
int serveHold(const std::string &name);
/** Calls the object of each line that comes; when the call has failed and the object's stub is invalid it writes the
 *  time. */
int serveBereaved();
/** So many objects of the class Thing. */
int serveThings(const std::string &count);

/** Monotonic, in microseconds; the same in all processes. */
double now();

} // namespace Bench
