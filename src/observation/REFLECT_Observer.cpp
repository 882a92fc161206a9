#include "observation/REFLECT_Observer.h"

#include "orb/REFLECT_orb.h"
#include "platform/Log.h"
#include "threads/HTUtil.h"

namespace {

constexpr char kSource[] = "REFLECT_Observer";

/** The answer of one that is not told: as a veto that it may have had. */
bool noMemory() {
    LogDispatch(3, "no memory to tell an observer", kSource);
    return false;
}

} // namespace

TreflectObserver::TreflectObserver(const TipprmiOID &oid, const TreflectObject *parent, const std::string &name)
    : TreflectObserverSkeleton(oid, parent, name) {}

TreflectObserver::~TreflectObserver() {
    TreflectORB::forget(*this);
}

bool TreflectObserver::notify(const TreflectObject &source, const unsigned &, const unsigned &,
                              const TipprmiSequence<TipprmiAny> &parameters, bool &delivered) {
    delivered = true;
    TipprmiSequence<TipprmiAny> copy = parameters;
    if (copy.getLength() != parameters.getLength()) {
        return noMemory(); // it would decide on nothing
    }
    SValue value{&copy, &source, true};
    return tell(value);
}

bool TreflectObserver::notify(const TreflectObject &source) {
    SValue value{nullptr, &source, false};
    return tell(value);
}

bool TreflectObserver::tell(SValue &value) {
    const ThreadSpecificGuard guard(values_, &value);
    if (values_.get() != &value) {
        return noMemory();
    }
    return detected();
}

bool TreflectObserver::detected() {
    return true;
}

TreflectObserver::SValue *TreflectObserver::getsvalue() {
    auto *const value = static_cast<SValue *>(values_.get());
    if (value == nullptr) {
        const TipprmiOID oid = getOID();
        LogDispatch(3,
                    LogMakeString("TreflectObserver::getsvalue(oid=%s) SValue == NULL.",
                                  oid.getIdString() != nullptr ? oid.getIdString() : ""),
                    kSource);
        HTUtil::testabort();
    }
    return value;
}

const TreflectObject *TreflectObserver::getSource() {
    const SValue *const value = getsvalue();
    return value != nullptr ? value->source : nullptr;
}
