#include "platform/AddressedMessage.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>

namespace Transport {
namespace {

bool allZero(const AddressedMessage &message) {
    const unsigned char *bytes = message.buf();
    for (unsigned i = 0; i < message.size(); ++i) {
        if (bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

TEST(AddressedMessage, AFreshMessageIsZeroedAndAligned) {
    // Make recycled heap memory likely, so that a missing clear shows.
    for (int round = 0; round < 50; ++round) {
        AddressedMessage dirty = AddressedMessage::allocate(1000, 4);
        std::memset(dirty.buf(), 0xA5, dirty.size());
        dirty = AddressedMessage();
        for (unsigned align : {0U, 1U, 4U, 8U, 16U}) {
            AddressedMessage message = AddressedMessage::allocate(1000, align);
            ASSERT_NE(nullptr, message.buf());
            EXPECT_EQ(1000U, message.size());
            EXPECT_TRUE(allZero(message));
            EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(message.buf()) % (align < 4 ? 4 : align));
            EXPECT_EQ(0U, message.destination().value());
        }
    }
}

TEST(AddressedMessage, SizeZeroHasABuffer) {
    AddressedMessage message = AddressedMessage::allocate(0, 4);
    EXPECT_NE(nullptr, message.buf());
    EXPECT_EQ(0U, message.size());
}

TEST(AddressedMessage, TooLargeOrOddlyAlignedHasNoBuffer) {
    EXPECT_NE(nullptr, AddressedMessage::allocate(kMaxMessageSize, 4).buf());
    for (const AddressedMessage &message :
         {AddressedMessage::allocate(kMaxMessageSize + 1, 4), AddressedMessage::allocate(~0U, 4),
          AddressedMessage::allocate(10, 32), AddressedMessage::allocate(10, 6), AddressedMessage()}) {
        EXPECT_EQ(nullptr, message.buf());
        EXPECT_EQ(0U, message.size());
    }
    AddressedMessage empty;
    EXPECT_EQ(nullptr, empty.buf());
}

TEST(AddressedMessage, ACopySharesUntilOneIsWritten) {
    AddressedMessage original = AddressedMessage::allocate(8, 4);
    std::memcpy(original.buf(), "original", 8);
    original.destination() = TerminationId(7);
    AddressedMessage copy = original;
    EXPECT_EQ(static_cast<const AddressedMessage &>(original).buf(), static_cast<const AddressedMessage &>(copy).buf());
    copy.buf()[0] = 'O';
    copy.destination() = TerminationId(8);
    EXPECT_EQ(0, std::memcmp(static_cast<const AddressedMessage &>(original).buf(), "original", 8));
    EXPECT_EQ(0, std::memcmp(static_cast<const AddressedMessage &>(copy).buf(), "Original", 8));
    EXPECT_EQ(7U, original.destination().value());
    original.buf()[1] = 'R'; // sole owner again: must not reach the copy either
    EXPECT_EQ('r', static_cast<const AddressedMessage &>(copy).buf()[1]);
}

TEST(AddressedMessage, SelfAssignmentAndMoveKeepTheBytes) {
    AddressedMessage message = AddressedMessage::allocate(4, 4);
    std::memcpy(message.buf(), "abcd", 4);
    AddressedMessage &alias = message;
    message = alias;
    ASSERT_EQ(4U, message.size());
    EXPECT_EQ(0, std::memcmp(message.buf(), "abcd", 4));
    AddressedMessage moved = std::move(message);
    EXPECT_EQ(0, std::memcmp(moved.buf(), "abcd", 4));
    EXPECT_EQ(nullptr, message.buf()); // NOLINT: a moved-from message is one without buffer
    EXPECT_EQ(0U, message.size());
}

TEST(AddressedMessage, GrowsInItsSpareRoomOnlyWhenNotShared) {
    AddressedMessage message = AddressedMessage::allocate(4, 4, 6);
    std::memcpy(message.buf(), "abcd", 4);
    {
        AddressedMessage copy = message;
        EXPECT_FALSE(message.extend(8));
        EXPECT_EQ(4U, message.size());
    }
    EXPECT_FALSE(message.extend(11));
    EXPECT_FALSE(message.extend(3));
    EXPECT_TRUE(message.extend(10));
    EXPECT_EQ(10U, message.size());
    EXPECT_EQ(0, std::memcmp(message.buf(), "abcd\0\0\0\0\0\0", 10));
}

TEST(AddressedMessage, CopiesMayBeWrittenByDifferentThreads) {
    for (int round = 0; round < 200; ++round) {
        AddressedMessage original = AddressedMessage::allocate(64, 4);
        std::memset(original.buf(), round, 64);
        AddressedMessage copy = original;
        std::thread writer([copy]() mutable {
            std::memset(copy.buf(), 0xFF, 64);
            copy = AddressedMessage();
        });
        copy = AddressedMessage();
        original.buf()[0] = static_cast<unsigned char>(round + 1);
        EXPECT_EQ(static_cast<unsigned char>(round), original.buf()[63]);
        writer.join();
        EXPECT_EQ(static_cast<unsigned char>(round + 1), original.buf()[0]);
    }
}

} // namespace
} // namespace Transport
