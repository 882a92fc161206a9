#pragma once

#include "orb/NamespaceId.h"
#include "platform/Export.h"
#include "platform/TerminationId.h"
#include "rmi/IPPRMI_any.h"
#include "rmi/IPPRMI_stream.h"

#include <array>
#include <cstddef>
#include <string>

// Each value's bytes on the wire; readers overwrite their target also when the stream fails.

/** 4 bytes, big-endian. Casts are for the caller to write: other integers do not pass. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, int value);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, int &value);
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, unsigned value);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, unsigned &value);

/** 4 bytes, big-endian, 0 or 1; anything but 0 reads as true. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, bool value);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, bool &value);

/** The length in 4 bytes, then the characters. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const std::string &value);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, std::string &value);

/** As a string up to its zero byte; null is written as the empty one. What is read is a new array that the caller frees
 *  with delete[]: terminated, empty if the length makes no sense, null only if there is no memory at all. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const char *value);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, char *&value);

/** The size of the data in 4 bytes, then the data, whatever the read position. Reading replaces the target's data, but
 *  a size of 0 leaves the target as it is. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiStream &value);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TipprmiStream &value);

/** As a nested stream; the target is emptied before it is read. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiAny &value);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TipprmiAny &value);

/** 4 bytes in the byte order of the host, unlike everything else. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, Transport::TerminationId value);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, Transport::TerminationId &value);

/** 4 bytes, big-endian. Reading only skips them: what arrives keeps the namespace of the variable it is read into. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, NamespaceId value);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, NamespaceId &value);

/** The elements; an array has no count. */
template <class T, std::size_t Length>
TipprmiStream &operator<<(TipprmiStream &stream, const std::array<T, Length> &array) {
    for (const T &element : array) {
        stream << element;
    }
    return stream;
}
template <class T, std::size_t Length>
TipprmiStream &operator>>(TipprmiStream &stream, std::array<T, Length> &array) {
    for (T &element : array) {
        stream >> element;
    }
    return stream;
}

/** Any other pointer would be written as a bool. */
TipprmiStream &operator<<(TipprmiStream &stream, const void *value) = delete;
