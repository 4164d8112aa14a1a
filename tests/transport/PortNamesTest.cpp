#include "PortNames.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace PortNames;

TEST(PortNames, ComIndexAndDevicePrefix) {
    const struct {
        const char* name;
        int index;
        const char* normalized;
    } cases[] = {
        {"COM5", 5, "\\\\.\\COM5"},
        {"com12", 12, "\\\\.\\com12"},
        {"COM12x", 12, "\\\\.\\COM12x"},
        {"\\\\.\\COM5", 0, "\\\\.\\COM5"},
        {"COM", 0, "COM"},
        {"COMX", 0, "COMX"},
        {"XCOM1", 0, "XCOM1"},
        {"/dev/ttyUSB0", 0, "/dev/ttyUSB0"},
        {"COM99999999999", 0, "\\\\.\\COM99999999999"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(comIndex(c.name), c.index) << c.name;
        EXPECT_EQ(normalizePortName(c.name), c.normalized) << c.name;
    }
}

TEST(PortNames, SortOrders) {
    using Names = std::vector<std::string>;
    const struct {
        void (*sort)(Names&);
        Names input;
        Names expected;
    } cases[] = {
        {sortComPorts, {"COM12", "com3", "COM1", "COM100"}, {"COM1", "com3", "COM12", "COM100"}},
        {sortComPorts, {"COMX", "COM3", "ABC", "COM"}, {"ABC", "COM", "COM3", "COMX"}},
        {sortDevicePorts,
         {"/dev/ttyUSB10", "/dev/ttyS4", "/dev/ttyUSB2", "/dev/pts/12", "/dev/pts/3", "/dev/ttyUSB0"},
         {"/dev/pts/3", "/dev/pts/12", "/dev/ttyS4", "/dev/ttyUSB0", "/dev/ttyUSB2", "/dev/ttyUSB10"}},
        {sortDevicePorts, {"COM12", "COM2", "COM1"}, {"COM1", "COM2", "COM12"}},
    };
    for (auto c : cases) {
        c.sort(c.input);
        EXPECT_EQ(c.input, c.expected);
    }
}

// std::sort must never see a cycle such as ttyS2 < ttyS10 < ttyS1x < ttyS2,
// which "by number when both have one, else by text" would make.
TEST(PortNames, DeviceOrderIsStrictAndTotalForAnyNames) {
    const std::vector<std::string> names{"ttyS2", "ttyS10", "ttyS1x", "ttyS",           "ttyS01",
                                         "ttyS1", "COM2",   "COMX",   "COM99999999999", "",
                                         "9",     "ttyS00", "a1b2",   "a1b10",          "a10b2"};
    for (const auto& a : names) {
        for (const auto& b : names) {
            EXPECT_EQ(a != b, devicePortLess(a, b) != devicePortLess(b, a)) << a << " " << b;
            for (const auto& c : names) {
                if (devicePortLess(a, b) && devicePortLess(b, c)) {
                    EXPECT_TRUE(devicePortLess(a, c)) << a << " < " << b << " < " << c;
                }
            }
        }
    }
}
