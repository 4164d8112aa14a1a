#pragma once

#include "BoardLink.h"

#include <chrono>
#include <string>
#include <vector>

// The devices on a link: a broadcast search, each device that answers asked
// for its fields, and what they described.
class DeviceSearch {
public:
    struct FieldSummary {
        unsigned index = 0;
        std::string name;
        unsigned type = 0;
    };
    struct DeviceSummary {
        unsigned address = 0;
        std::string name;
        std::string version;
        std::vector<FieldSummary> fields;
    };

    // A search ends once every device has described itself and no new one
    // has answered for kQuiet, or after kBudget.
    static constexpr std::chrono::milliseconds kQuiet{700};
    static constexpr std::chrono::milliseconds kBudget{5000};

    explicit DeviceSearch(BoardLink& link) : link(link) {}

    // The threads started and a search sent; returns at once.
    void start();
    // A device that answered is asked for its fields; from the receive path,
    // when the model has added it.
    void describeCurrent();
    // Searches and waits as above; the devices found.
    std::vector<DeviceSummary> run();
    // A device counts as described once it has as many fields as it
    // announced (none for a device that announces none).
    bool allDescribed();
    bool described(std::uint8_t address);
    std::vector<DeviceSummary> summaries();

private:
    BoardLink& link;
};
