#pragma once

#include "orb/REFLECT_orb.h"
#include "platform/transport/testing/FakeLink.h"
#include "rmi/IPPRMI_stream.h"
#include "support/LogCapture.h"
#include "threads/HandlerState.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

namespace Testing {

/** For what needs the broker of namespace 1: it is there, over a link without a world behind it. */
class BrokerTest : public testing::Test {
protected:
    /** No later test hears of what happened in this one. */
    void TearDown() override {
        link.reset();
        const TreflectReleaseHandlerState released; // which the membership thread may want
        const Transport::TerminationId last(0xFFF0, 15, 1);
        link.peerAppears(last);
        EXPECT_TRUE(log.waitFor(5, LogMakeString("ORB 0x%08X sees 0x%08X appear", orb.termId().value(), last.value()),
                                "REFLECT_orb"));
        link.peerVanishes(last);
    }

    Transport::FakeLink &link = Transport::FakeLink::install();
    LogCapture log;
    TreflectORB &orb = *TreflectORB::getInstance(1);
};

/** "00 00 00 2A" */
inline std::string hex(const unsigned char *bytes, int size) {
    std::string text;
    for (int i = 0; i < size; ++i) {
        char digits[4];
        std::snprintf(digits, sizeof digits, i == 0 ? "%02X" : " %02X", static_cast<unsigned>(bytes[i]));
        text += digits;
    }
    return text;
}

/** The data of a stream. */
inline std::string hex(const TipprmiStream &stream) {
    return hex(stream.getDataPtr(), stream.getDataSize());
}

/** The whole payload of a message. */
inline std::string hex(const TreflectMessage &message) {
    return hex(message.buf(), static_cast<int>(message.size()));
}

/** A stream that has received these bytes. */
inline TipprmiStream received(std::initializer_list<int> bytes) {
    std::vector<unsigned char> data;
    for (int byte : bytes) {
        data.push_back(static_cast<unsigned char>(byte));
    }
    return TipprmiStream(data.data(), static_cast<int>(data.size()));
}

} // namespace Testing
