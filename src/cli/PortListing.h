#pragma once

#include "PortIdentity.h"

#include <optional>
#include <string>
#include <vector>

// The serial ports as `merid-flash ports` shows them: each name with what
// the system knows of its USB adapter, as a table for people or as JSON.
class PortListing {
public:
    struct Entry {
        std::string name;
        std::optional<PortIdentity> identity;
    };

    static std::vector<Entry> of(const std::vector<std::string>& names);
    // One line a port: the name, then vendor:product, serial number and
    // product string where known; adapter text escaped.
    static std::string table(const std::vector<Entry>& entries);
    // {"ports":[{"name":...,"vendorId":...,...}]}: an adapter's fields only
    // where the system has them.
    static std::string json(const std::vector<Entry>& entries);
};
