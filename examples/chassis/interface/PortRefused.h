#pragma once

#include "rmi/IPPRMI_exception.h"

#include <string>

/** User exception of ports: the kernel did not do what was asked. */
struct PortRefused {
    unsigned code = 0;  // an errno of Linux; ENODEV: the interface is gone
    std::string reason; // in the kernel's words where it has some

    static constexpr unsigned getExceptionClassType() noexcept { return 0x2E91B6D3U; }
};

TipprmiStream &operator<<(TipprmiStream &stream, const PortRefused &refused);
TipprmiStream &operator>>(TipprmiStream &stream, PortRefused &refused);
