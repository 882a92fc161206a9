#include "platform/Thread.h"

#include "platform/Cancellation.h"
#include "platform/Environment_p.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/Mutex.h"
#include "platform/posix/ScaledTime_p.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace OSWrap {

namespace {

constexpr char kSource[] = "OSWrap";
constexpr std::size_t kNameLength = 15;

std::size_t stackFloor() {
#ifdef REFLECTORB_SANITIZED
    return std::size_t{1024} * 1024;
#else
    return sizeof(void *) == 4 ? std::size_t{64} * 1024 : std::size_t{256} * 1024;
#endif
}

__attribute__((tls_model("initial-exec"))) thread_local int cachedTid = 0; // asked for at every guard

[[gnu::constructor]] void registerTidRefresh() {
    Platform::onForkInChild([] { cachedTid = 0; });
}

} // namespace

/** Outlives the object as long as the thread does: a detached thread may have deleted its object. */
struct Thread::State {
    Mutex lock;
    pthread_t id RB_GUARDED_BY(lock){};
    bool started RB_GUARDED_BY(lock) = false;
    bool stopRequested RB_GUARDED_BY(lock) = false;
    bool running RB_GUARDED_BY(lock) = false; // its id may be used
    bool joined RB_GUARDED_BY(lock) = false;
    bool deleteAtEnd RB_GUARDED_BY(lock) = false;
    std::atomic<int> result{0};

    int priority = 0;
    int policy = 0;
    std::size_t stackSize = 0; // 0: the system's default
    char name[kNameLength + 1] = {};
    bool detached = false;

    enum class Creation { failed, asAsked, withTimeSharing };
    Creation create(Thread *thread);
    int createWith(pthread_attr_t &attributes, Thread *thread, bool &refused);
};

std::shared_ptr<Thread::State> Thread::makeState() noexcept {
    try {
        return std::make_shared<State>();
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

Thread::Thread(const Priority &priority, const SchedulingPolicy &policy, unsigned stackSize, const char *name,
               bool detached)
    : state_(makeState()) {
    if (!state_) {
        return; // no memory: start() will fail
    }
    state_->priority = priority.value();
    state_->policy = policy.value();
    state_->stackSize = stackSize == ~0U ? 0 : std::max<std::size_t>(stackSize, stackFloor());
    if (name != nullptr) {
        std::strncpy(state_->name, name, kNameLength);
    }
    state_->detached = detached;
}

Thread::~Thread() {
    bool alive = false;
    if (state_) {
        Lock<Mutex> lock(state_->lock);
        alive = state_->started && !state_->detached && !state_->joined;
    }
    if (alive) {
        LogDispatch(3, LogMakeString("Thread %s destroyed before it was joined", state_->name), kSource);
        stop();
        join();
    }
}

void Thread::deleteOnThreadTermination() {
    if (!state_) {
        deletesItself_ = true;
        return;
    }
    Lock<Mutex> lock(state_->lock);
    state_->deleteAtEnd = true;
    state_->detached = true; // nobody could join what is gone
}

bool Thread::start() {
    const std::shared_ptr<State> state = state_;
    if (!state) {
        if (deletesItself_) {
            delete this;
        }
        return false;
    }
    State::Creation creation = State::Creation::failed;
    bool destroy = false;
    {
        Lock<Mutex> lock(state->lock);
        if (state->started || state->stopRequested) {
            return false;
        }
        // The new thread first waits for this lock, so it finds all this in place.
        creation = state->create(this);
        destroy = creation == State::Creation::failed && state->deleteAtEnd;
    }
    if (creation == State::Creation::failed) {
        LogDispatch(3, LogMakeString("Thread %s cannot be created", state->name), kSource);
    } else if (creation == State::Creation::withTimeSharing) {
        LogDispatch(5,
                    LogMakeString("Thread %s runs with time sharing, policy %d priority %d not permitted", state->name,
                                  state->policy, state->priority),
                    kSource);
    }
    if (destroy) {
        delete this;
    }
    return creation != State::Creation::failed;
}

Thread::State::Creation Thread::State::create(Thread *thread) RB_NO_ANALYSIS {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return Creation::failed;
    }
    if (stackSize != 0) {
        pthread_attr_setstacksize(&attributes, std::max<std::size_t>(stackSize, PTHREAD_STACK_MIN));
    }
    if (detached) {
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    }
    bool refused = false;
    started = running = createWith(attributes, thread, refused) == 0;
    pthread_attr_destroy(&attributes);
    if (!started) {
        return Creation::failed;
    }
    return refused ? Creation::withTimeSharing : Creation::asAsked;
}

int Thread::State::createWith(pthread_attr_t &attributes, Thread *thread, bool &refused) RB_NO_ANALYSIS {
    if (policy == 1 || policy == 2) {
        sched_param parameters{};
        parameters.sched_priority = priority;
        pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_setschedpolicy(&attributes, policy == 1 ? SCHED_FIFO : SCHED_RR);
        int error = pthread_attr_setschedparam(&attributes, &parameters);
        if (error == 0) {
            error = pthread_create(&id, &attributes, &Thread::entry, thread);
        }
        if (error != EPERM && error != EINVAL) {
            return error;
        }
        refused = true;
        pthread_attr_setinheritsched(&attributes, PTHREAD_INHERIT_SCHED);
    }
    return pthread_create(&id, &attributes, &Thread::entry, thread);
}

void *Thread::entry(void *argument) {
    // Runs at the end of run(), whether it returns or is cancelled, and before the thread's own values go.
    struct End {
        std::shared_ptr<State> state;
        Thread *thread;
        bool destroy = false;
        ~End() {
            DisableCancelStateGuard guard;
            {
                Lock<Mutex> lock(state->lock);
                state->running = false;
            }
            if (destroy) {
                delete thread;
            }
        }
    };
    auto *thread = static_cast<Thread *>(argument);
    int before = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    End end{thread->state_, thread};
    {
        Lock<Mutex> lock(end.state->lock);
        end.destroy = end.state->deleteAtEnd;
    }
    if (end.state->name[0] != '\0') {
        pthread_setname_np(pthread_self(), end.state->name);
    }
    pthread_setcancelstate(before, &before);
    try {
        end.state->result = thread->run();
    } catch (const std::exception &error) {
        // Not by catch (...): a cancellation must pass.
        LogDispatch(3, LogMakeString("Thread %s ends the actor: %s", end.state->name, error.what()), kSource);
        Log::flushBeforeAbort();
        std::abort();
    }
    return nullptr;
}

bool Thread::stop() {
    const std::shared_ptr<State> state = state_; // one that deletes itself may do so before this returns
    if (!state) {
        return false;
    }
    Lock<Mutex> lock(state->lock);
    state->stopRequested = true;
    return state->running && pthread_cancel(state->id) == 0;
}

bool Thread::join() {
    DisableCancelStateGuard guard;
    const std::shared_ptr<State> state = state_;
    if (!state) {
        return false;
    }
    pthread_t id{};
    {
        Lock<Mutex> lock(state->lock);
        if (!state->started || state->detached || state->joined || pthread_equal(state->id, pthread_self()) != 0) {
            return false;
        }
        state->joined = true;
        id = state->id;
    }
    return pthread_join(id, nullptr) == 0;
}

int Thread::result() const {
    return state_ ? state_->result.load() : 0;
}

void Thread::sleep(const TimeSpec &time) {
    if (time <= TimeSpec()) {
        return;
    }
    const bool forEver = time == TimeSpec::INFINITETIME;
    timespec end = ScaledTime::deadline(forEver ? TimeSpec(1000000000) : time);
    do {
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
        }
        end.tv_sec = INT_MAX;
    } while (forEver);
}

unsigned long Thread::getCurrentId() noexcept {
    return static_cast<unsigned long>(pthread_self());
}

int Thread::getCurrentTid() noexcept {
    if (cachedTid == 0) {
        cachedTid = static_cast<int>(::syscall(SYS_gettid));
    }
    return cachedTid;
}

} // namespace OSWrap
