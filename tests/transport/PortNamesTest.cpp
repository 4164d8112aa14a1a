#include "PortNames.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace PortNames;
using Names = std::vector<std::string>;

TEST(PortNames, ComIndexAndDevicePrefix) {
    const struct {
        const char* name;
        int index;
        bool prefixed;
    } cases[] = {{"COM5", 5, true},           {"com12", 12, true},       {"COM12x", 12, true},
                 {"COM99999999999", 0, true}, {"\\\\.\\COM5", 0, false}, {"COM", 0, false},
                 {"COMX", 0, false},          {"XCOM1", 0, false},       {"/dev/ttyUSB0", 0, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(comIndex(c.name), c.index) << c.name;
        EXPECT_EQ(normalizePortName(c.name), (c.prefixed ? "\\\\.\\" : "") + std::string(c.name));
    }
}

TEST(PortNames, SortOrders) {
    const struct {
        void (*sort)(Names&);
        Names input, expected;
    } cases[] = {{sortComPorts, {"COM12", "com3", "COM1", "COM100"}, {"COM1", "com3", "COM12", "COM100"}},
                 {sortComPorts, {"COMX", "COM3", "ABC", "COM"}, {"ABC", "COM", "COM3", "COMX"}},
                 {sortDevicePorts, {"COM12", "COM2", "COM1"}, {"COM1", "COM2", "COM12"}},
                 {sortDevicePorts,
                  {"/dev/ttyUSB10", "/dev/ttyS4", "/dev/ttyUSB2", "/dev/pts/12", "/dev/pts/3"},
                  {"/dev/pts/3", "/dev/pts/12", "/dev/ttyS4", "/dev/ttyUSB2", "/dev/ttyUSB10"}}};
    for (auto c : cases) {
        c.sort(c.input);
        EXPECT_EQ(c.input, c.expected);
    }
}

// std::sort must never see a cycle such as ttyS2 < ttyS10 < ttyS1x < ttyS2,
// which "by number when both have one, else by text" would make.
TEST(PortNames, DeviceOrderIsStrictAndTotalForAnyNames) {
    const Names names{"ttyS2",          "ttyS10", "ttyS1x", "ttyS",   "ttyS01", "ttyS1", "COM2", "COMX",
                      "COM99999999999", "",       "9",      "ttyS00", "a1b2",   "a1b10", "a10b2"};
    for (const auto& a : names) {
        for (const auto& b : names) {
            EXPECT_EQ(a != b, devicePortLess(a, b) != devicePortLess(b, a)) << a << " " << b;
            for (const auto& c : names) {
                EXPECT_TRUE(!devicePortLess(a, b) || !devicePortLess(b, c) || devicePortLess(a, c))
                    << a << b << c;
            }
        }
    }
}
