// A call of a method that every reflective object has: a byte for the object, which is an observer or not, one for the
// method, then the arguments. It is answered, and what is cut short has no effect.
#include "Broker.h"
#include "observation/REFLECT_Observer.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

namespace {

constexpr unsigned kObserverClass = 0x641E8FCD;
constexpr unsigned kMethods[] = {0,    1000, 1001, 1100, 1101, 1102, 1103, 1104,
                                 1105, 1106, 1107, 1108, 999,  2100, 2101, 5};

class Thing : public TreflectServerObject {
public:
    Thing() : TreflectServerObject(TipprmiOID("thing", NamespaceId(1)), nullptr, "thing") {}
    unsigned getServerClassId() const override { return 0x51; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override { return {}; }
};

class Watcher : public TreflectObserver {
public:
    Watcher() : TreflectObserver(TipprmiOID("watcher", NamespaceId(1)), nullptr, "watcher") {}
    bool detected() override {
        ++told;
        require(getsvalue()->detailed && getsvalue()->parameters != nullptr, "it is told of an operation");
        return true;
    }
    unsigned told = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Broker &broker = Broker::instance();
    broker.answerWith(Input(nullptr, 0)); // where a named object is: nowhere
    Input input(data, size);
    const bool observer = (input.byte() & 1) != 0;
    const unsigned method = kMethods[input.byte() % (sizeof kMethods / sizeof kMethods[0])];
    const TreflectHandlerState state(true);
    Thing thing;
    Watcher watcher;
    TreflectServerObject &object = observer ? static_cast<TreflectServerObject &>(watcher) : thing;
    TipprmiStream request(input.data(), static_cast<int>(input.size()));
    TipprmiStream response(100);
    const bool handled = object.dispatch(true, kObserverClass, method, request, response);
    require(handled || method == 999 || method == 1102 || method == 5 || (method == 0 && !observer),
            "these methods every object has");
    if (request.hasUnmarshallingFailed()) {
        require(watcher.told == 0, "of half a call nobody is told");
    }
    if (handled) {
        TipprmiExceptionContainer container;
        response.rewind();
        response >> container;
        require(!response.hasUnmarshallingFailed(), "an answer begins with a container");
    }
    return 0;
}
