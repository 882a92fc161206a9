#include "orb/ReflectWorker_p.h"

#include "orb/REFLECT_orb.h"

namespace {

constexpr unsigned kStack = 65536;

} // namespace

ReflectWorker::ReflectWorker(TreflectORB &orb)
    : Thread(OSWrap::Priority(3), OSWrap::SchedulingPolicy(0), kStack, "ReflectWorker", true), orb_(orb) {}

int ReflectWorker::run() {
    orb_.dispatchEntry();
    return 0;
}
