// Readers of all types: a count (up to 8), so many types, then the payload of the message, which begins with the size
// word. A value that could be read is written and read again.
#include "Broker.h"
#include "rmi/IPPRMI_exception.h"
#include "rmi/StreamOperators.h"

namespace {

/** What was read whole comes back from a stream that it is written to. */
template <class T, class Same>
void readBack(TipprmiStream &stream, T value, T again, const Same &same) {
    stream >> value;
    if (!stream.hasUnmarshallingFailed()) {
        TipprmiStream copy(1);
        copy << value;
        copy >> again;
        require(!copy.hasUnmarshallingFailed() && copy.getRemaining() == 0, "what is written can be read");
        require(same(value, again), "what is written is what is read");
    }
}

template <class T>
void readEqual(TipprmiStream &stream) {
    readBack(stream, T{}, T{}, [](const T &a, const T &b) { return a == b; });
}

bool sameBytes(const TipprmiStream &a, const TipprmiStream &b) {
    const int size = a.getDataSize();
    for (int i = 0; i < size && size == b.getDataSize(); ++i) {
        if (a.getDataPtr()[i] != b.getDataPtr()[i]) {
            return false;
        }
    }
    return size == b.getDataSize();
}

void readCharacters(TipprmiStream &stream) {
    char *characters = nullptr;
    stream >> characters;
    require(characters != nullptr, "there is always an array");
    const std::string text(characters);
    delete[] characters;
}

void readNested(TipprmiStream &stream) {
    readBack(stream, TipprmiStream(1), TipprmiStream(1), &sameBytes);
}

void readAny(TipprmiStream &stream) {
    readBack(stream, TipprmiAny(), TipprmiAny(), &sameBytes);
}

void readOid(TipprmiStream &stream) {
    const TipprmiOID none(nullptr, NamespaceId(9));
    readBack(stream, none, none, [](const TipprmiOID &a, const TipprmiOID &b) {
        return a == b || (a.getIdString() == nullptr && b.getIdString() == nullptr);
    });
}

template <class T>
void readSequence(TipprmiStream &stream) {
    using Sequence = TipprmiSequence<T>;
    readBack(stream, Sequence(), Sequence(),
             [](const Sequence &a, const Sequence &b) { return a.getLength() == b.getLength(); });
}

void readNamespace(TipprmiStream &stream) {
    NamespaceId ns(9);
    stream >> ns;
    require(ns == NamespaceId(9), "the namespace of the variable is kept");
}

void readException(TipprmiStream &stream) {
    TipprmiExceptionContainer container;
    stream >> container;
    TipprmiGeneralException exception(7);
    container.getExceptionData(exception);
}

void readCounters(TipprmiStream &stream) {
    TipprmiSequence<TreflectORB::PerfCnts> counters;
    stream >> counters;
}

void skip(TipprmiStream &stream) {
    int size = 0;
    stream >> size;
    stream.unmarshall(nullptr, size);
}

using Reader = void (*)(TipprmiStream &);
constexpr Reader kReaders[] = {
    &readEqual<int>,
    &readEqual<unsigned>,
    &readEqual<bool>,
    &readEqual<std::string>,
    &readCharacters,
    &readNested,
    &readAny,
    &readEqual<Transport::TerminationId>,
    &readNamespace,
    &readOid,
    &readSequence<unsigned>,
    &readSequence<TipprmiAny>,
    &readException,
    &readCounters,
    &skip,
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const Broker &broker = Broker::instance();
    Input input(data, size);
    Input types = input.take(input.byte() % 9);
    auto addressed =
        Transport::AddressedMessage::allocate(static_cast<unsigned>(TreflectMessage::kHeaderSize + input.size()), 4);
    std::copy(input.data(), input.data() + input.size(), addressed.buf() + TreflectMessage::kHeaderSize);
    addressed.destination() = broker.orb.termId();
    TipprmiStream stream(TreflectMessage(std::move(addressed)), false);
    while (!types.empty()) {
        kReaders[types.byte() % (sizeof kReaders / sizeof kReaders[0])](stream);
        const int left = stream.getRemaining();
        require(left >= 0 && static_cast<std::size_t>(left) <= input.size(), "nothing is read behind the message");
    }
    return 0;
}
