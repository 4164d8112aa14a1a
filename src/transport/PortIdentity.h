#pragma once

#include <optional>
#include <string>

// What the system knows of the USB adapter behind a serial port: its vendor
// and product ids (four hexadecimal digits each), serial number and product
// string, each empty when the adapter does not report it. Linux reads them
// from sysfs (below MERID_SYSFS_ROOT when set, else /sys), Windows from the
// setup API. The texts come from the adapter: show them escaped.
struct PortIdentity {
    std::string vendorId;
    std::string productId;
    std::string serialNumber;
    std::string product;

    // The adapter behind `port`; nothing for a port that is not on USB
    // (a pseudo-terminal, a built-in UART) or that the system does not list.
    static std::optional<PortIdentity> of(const std::string& port);
};
