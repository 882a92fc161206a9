#include "rmi/StreamOperators.h"

#include "orb/ByteOrder_p.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <exception>
#include <new>

namespace {

int clampToInt(std::size_t length) noexcept {
    return length < static_cast<std::size_t>(INT_MAX) ? static_cast<int>(length) : INT_MAX;
}

TipprmiStream &writeCounted(TipprmiStream &stream, const void *bytes, int length) {
    stream << length;
    return stream.marshall(bytes, length);
}

/** Whether the next `size` bytes are there. */
bool holds(const TipprmiStream &stream, int size) noexcept {
    return !stream.hasUnmarshallingFailed() && stream.getRemaining() >= size;
}

} // namespace

TipprmiStream &operator<<(TipprmiStream &stream, unsigned value) {
    unsigned char bytes[4];
    Wire::storeBigEndian(bytes, value);
    return stream.marshall(bytes, sizeof bytes);
}

TipprmiStream &operator>>(TipprmiStream &stream, unsigned &value) {
    unsigned char bytes[4];
    stream.unmarshall(bytes, sizeof bytes);
    value = Wire::loadBigEndian(bytes);
    return stream;
}

TipprmiStream &operator<<(TipprmiStream &stream, int value) {
    return stream << static_cast<unsigned>(value);
}

TipprmiStream &operator>>(TipprmiStream &stream, int &value) {
    unsigned number = 0;
    stream >> number;
    value = static_cast<int>(number);
    return stream;
}

TipprmiStream &operator<<(TipprmiStream &stream, bool value) {
    return stream << (value ? 1U : 0U);
}

TipprmiStream &operator>>(TipprmiStream &stream, bool &value) {
    unsigned number = 0;
    stream >> number;
    value = number != 0;
    return stream;
}

TipprmiStream &operator<<(TipprmiStream &stream, const std::string &value) {
    return writeCounted(stream, value.data(), clampToInt(value.size()));
}

TipprmiStream &operator>>(TipprmiStream &stream, std::string &value) {
    int length = 0;
    stream >> length;
    length = stream.admitLength(length);
    try {
        value.clear();
        if (length >= 1 && holds(stream, length)) {
            value.assign(reinterpret_cast<const char *>(stream.getReadPtr()), static_cast<std::size_t>(length));
        } else if (length >= 1) {
            value.assign(static_cast<std::size_t>(length), '\0');
        }
    } catch (const std::exception &) { // no memory
        stream.stopUnmarshalling();
    }
    return stream.unmarshall(nullptr, length);
}

TipprmiStream &operator<<(TipprmiStream &stream, const char *value) {
    return value != nullptr ? writeCounted(stream, value, clampToInt(std::strlen(value))) : stream << 0;
}

TipprmiStream &operator>>(TipprmiStream &stream, char *&value) {
    int length = 0;
    stream >> length;
    length = std::max(stream.admitLength(length), 0);
    value = new (std::nothrow) char[static_cast<std::size_t>(length) + 1]();
    if (value != nullptr) {
        stream.unmarshall(value, length);
        return stream;
    }
    stream.stopUnmarshalling();
    value = new (std::nothrow) char[1]();
    return stream;
}

TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiStream &value) {
    // The size first: `value` may be the stream itself.
    const int size = std::max(std::min(value.getDataSize(), value.getDataLimit()), 0);
    stream << size;
    return stream.marshall(value.getDataPtr(), size);
}

TipprmiStream &operator>>(TipprmiStream &stream, TipprmiStream &value) {
    int size = 0;
    stream >> size;
    size = stream.admitLength(size);
    if (size < 1) {
        return stream;
    }
    // Straight from the stream's bytes; if they are too few, the value is that many zeros.
    const unsigned char *data = holds(stream, size) ? stream.getReadPtr() : nullptr;
    stream.unmarshall(nullptr, size);
    value.setData(data, size);
    return stream;
}

TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiAny &value) {
    return stream << static_cast<const TipprmiStream &>(value);
}

TipprmiStream &operator>>(TipprmiStream &stream, TipprmiAny &value) {
    value.clear();
    return stream >> static_cast<TipprmiStream &>(value);
}

TipprmiStream &operator<<(TipprmiStream &stream, Transport::TerminationId value) {
    const unsigned number = value.value();
    return stream.marshall(&number, sizeof number);
}

TipprmiStream &operator>>(TipprmiStream &stream, Transport::TerminationId &value) {
    unsigned number = 0;
    stream.unmarshall(&number, sizeof number);
    value = Transport::TerminationId(number);
    return stream;
}

TipprmiStream &operator<<(TipprmiStream &stream, NamespaceId value) {
    return stream << static_cast<unsigned>(value);
}
TipprmiStream &operator>>(TipprmiStream &stream, NamespaceId &) {
    return stream.unmarshall(nullptr, 4);
}
