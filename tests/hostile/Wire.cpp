#include "hostile/Wire.h"

namespace Hostile {

void addWord(Bytes &to, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        to.push_back(static_cast<unsigned char>(value >> shift));
    }
}

std::uint32_t wordAt(const Bytes &from, std::size_t offset) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value = value << 8 | from.at(offset + i);
    }
    return value;
}

void setWord(Bytes &in, std::size_t offset, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i) {
        in.at(offset + i) = static_cast<unsigned char>(value >> (24 - 8 * i));
    }
}

Data &Data::word(std::uint32_t value) {
    addWord(data_, value);
    return *this;
}

Data &Data::text(const std::string &value) {
    return counted(static_cast<std::uint32_t>(value.size()), value);
}

Data &Data::bytes(const Bytes &value) {
    data_.insert(data_.end(), value.begin(), value.end());
    return *this;
}

Data &Data::counted(std::uint32_t count, const std::string &rest) {
    addWord(data_, count);
    data_.insert(data_.end(), rest.begin(), rest.end());
    return *this;
}

Bytes message(std::uint32_t transaction, std::uint32_t type, std::uint32_t kind, const Bytes &data) {
    return Data()
        .word(transaction)
        .word(type)
        .word(kind)
        .word(static_cast<std::uint32_t>(data.size()))
        .bytes(data)
        .get();
}

Bytes call(std::uint32_t transaction, std::uint32_t object, std::uint32_t classCode, std::uint32_t method,
           const Bytes &arguments) {
    return message(transaction, kCall, kRequest,
                   Data().word(object).word(1).word(classCode).word(method).bytes(arguments).get());
}

Bytes packet(unsigned type, std::uint32_t originator, std::uint32_t destination, std::uint32_t size, const Bytes &piece,
             unsigned flags) {
    Bytes bytes{'R', 'O', 1, static_cast<unsigned char>(type), 0, static_cast<unsigned char>(flags), 0, 0};
    addWord(bytes, originator);
    addWord(bytes, destination);
    addWord(bytes, size);
    bytes.insert(bytes.end(), piece.begin(), piece.end());
    return bytes;
}

} // namespace Hostile
