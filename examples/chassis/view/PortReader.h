#pragma once

#include "Port.h"

namespace View {

/** Reads of a port that hold together only if all of them succeed: it may go in between. */
class PortReader {
public:
    explicit PortReader(const Port &port) : port_(port) {}
    template <class T>
    T operator()(T (Port::*get)(Port::Raised *) const) {
        Port::Raised raised;
        T value = (port_.*get)(&raised);
        failed_ = failed_ || raised.getExceptionType() != 0;
        return value;
    }
    bool failed() const { return failed_; }

private:
    const Port &port_;
    bool failed_ = false;
};

} // namespace View
