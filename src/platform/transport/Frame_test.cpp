#include "platform/transport/Frame_p.h"

#include "platform/AddressedMessage.h"

#include <gtest/gtest.h>

#include <vector>

namespace Transport {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes packet(const Frame &frame, std::size_t body = 0) {
    Bytes bytes(Frame::kHeadSize + body, 0x55);
    frame.encode(bytes.data());
    return bytes;
}

TEST(Frame, HeadIsBigEndianAtFixedPlaces) {
    Frame frame;
    frame.type = FrameType::data;
    frame.flags = Frame::kFirst | Frame::kLast;
    frame.originator = 0x01020304;
    frame.destination = 0x11121314;
    frame.size = 0x00ABCDEF;
    EXPECT_EQ(
        (Bytes{'R', 'O', 1, 6, 0, 3, 0, 0, 0x01, 0x02, 0x03, 0x04, 0x11, 0x12, 0x13, 0x14, 0x00, 0xAB, 0xCD, 0xEF}),
        packet(frame));
}

TEST(Frame, DecodeGivesWhatWasEncoded) {
    Frame frame;
    frame.type = FrameType::returned;
    frame.flags = Frame::kLast;
    frame.originator = 0xFFFEFDFC;
    frame.destination = 7;
    frame.size = 100;
    const Bytes bytes = packet(frame, 40);
    Frame read;
    std::string problem;
    ASSERT_TRUE(read.decode(bytes.data(), bytes.size(), problem)) << problem;
    EXPECT_EQ(frame.type, read.type);
    EXPECT_EQ(frame.flags, read.flags);
    EXPECT_EQ(frame.originator, read.originator);
    EXPECT_EQ(frame.destination, read.destination);
    EXPECT_EQ(frame.size, read.size);
}

struct Broken {
    const char *name;
    Bytes bytes;
    const char *says;
};

std::vector<Broken> brokenPackets() {
    Frame hello;
    Frame data;
    data.type = FrameType::data;
    data.size = 10;
    std::vector<Broken> cases;
    cases.push_back({"short head", Bytes(19, 'R'), "shorter than a head"});
    Bytes bytes = packet(hello);
    bytes[1] = 'X';
    cases.push_back({"magic", bytes, "starts with"});
    bytes = packet(hello);
    bytes[2] = 2;
    cases.push_back({"version", bytes, "protocol version 2"});
    for (unsigned char type : {0, 8, 255}) {
        bytes = packet(hello);
        bytes[3] = type;
        cases.push_back({"type", bytes, "type"});
    }
    cases.push_back({"hello with body", packet(hello, 1), "has 1 bytes too many"});
    cases.push_back({"body above size", packet(data, 11), "has 1 bytes too many"});
    cases.push_back({"piece without bytes", packet(data, 0), "without bytes"});
    data.size = kMaxMessageSize + 1;
    cases.push_back({"message too large", packet(data, 10), "larger than allowed"});
    data.size = 0xFFFFFFFF;
    cases.push_back({"message far too large", packet(data, 10), "larger than allowed"});
    return cases;
}

TEST(Frame, BrokenPacketsAreRefusedWithTheReason) {
    for (const Broken &broken : brokenPackets()) {
        Frame frame;
        std::string problem;
        EXPECT_FALSE(frame.decode(broken.bytes.data(), broken.bytes.size(), problem)) << broken.name;
        EXPECT_NE(std::string::npos, problem.find(broken.says)) << broken.name << ": " << problem;
    }
}

TEST(Frame, AnEmptyAndTheLargestMessageAreFine) {
    Frame data;
    data.type = FrameType::data;
    std::string problem;
    Frame read;
    Bytes bytes = packet(data);
    EXPECT_TRUE(read.decode(bytes.data(), bytes.size(), problem)) << problem;
    data.size = kMaxMessageSize;
    bytes = packet(data, 1);
    EXPECT_TRUE(read.decode(bytes.data(), bytes.size(), problem)) << problem;
}

} // namespace
} // namespace Transport
