// The payload of an answer to the question for performance counters.
#include "Broker.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Broker &broker = Broker::instance();
    broker.answerWith(Input(data, size));
    const TreflectORB::PerfCntInfo info = broker.orb.getPerfCnts(Broker::kPeer);
    require(info.counters.getLength() <= std::max<std::size_t>(size / 12, 65536), "a count is believed within bounds");
    return 0;
}
