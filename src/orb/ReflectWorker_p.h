#pragma once

#include "platform/Thread.h"

class TreflectORB;

/** One thread of the broker's pool; deletes itself. */
class ReflectWorker : public OSWrap::Thread {
public:
    explicit ReflectWorker(TreflectORB &orb);

protected:
    int run() override;

private:
    TreflectORB &orb_;
};
