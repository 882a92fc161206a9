// The head of a packet, alone.
#include "Input.h"
#include "platform/transport/Frame_p.h"

#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Transport::Frame frame;
    std::string problem;
    if (frame.decode(data, size, problem)) {
        unsigned char head[Transport::Frame::kHeadSize];
        frame.encode(head);
        head[6] = data[6]; // these two are not looked at
        head[7] = data[7];
        require(std::memcmp(head, data, sizeof head) == 0, "a head that was read is written as it was");
        require(size - sizeof head <= frame.size, "a piece is not larger than its message");
    } else {
        require(!problem.empty(), "who refuses says why");
    }
    return 0;
}
