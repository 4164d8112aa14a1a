#include "PortNames.h"
#include "SerialPortWindows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace PortNames;

TEST(PortNames, ComIndexReadsTheNumber) {
    EXPECT_EQ(comIndex("COM5"), 5);
    EXPECT_EQ(comIndex("com12"), 12);
    EXPECT_EQ(comIndex("cOm7"), 7);
    EXPECT_EQ(comIndex("COM12x"), 12) << "trailing characters are ignored";
    EXPECT_EQ(comIndex("COM256"), 256);
}

TEST(PortNames, ComIndexIsZeroForEverythingElse) {
    EXPECT_EQ(comIndex(""), 0);
    EXPECT_EQ(comIndex("COM"), 0);
    EXPECT_EQ(comIndex("COMX"), 0);
    EXPECT_EQ(comIndex("COM-1"), 0);
    EXPECT_EQ(comIndex("XCOM1"), 0);
    EXPECT_EQ(comIndex("/dev/ttyUSB0"), 0);
    EXPECT_EQ(comIndex("COM99999999999"), 0) << "an overflowing number is caught";
}

TEST(PortNames, NormalizeAddsTheDevicePrefixToComNamesOnly) {
    EXPECT_EQ(normalizePortName("com5"), "\\\\.\\com5");
    EXPECT_EQ(normalizePortName("COM5"), "\\\\.\\COM5");
    EXPECT_EQ(normalizePortName("\\\\.\\COM5"), "\\\\.\\COM5");
    EXPECT_EQ(normalizePortName("COM"), "COM");
    EXPECT_EQ(normalizePortName("COMX"), "COMX");
    EXPECT_EQ(normalizePortName("/dev/ttyUSB0"), "/dev/ttyUSB0");
    EXPECT_EQ(normalizePortName(""), "");
    // The class's own name for it gives the same.
    EXPECT_EQ(SerialPortWindows::normalizePortName("COM12"), "\\\\.\\COM12");
    EXPECT_EQ(SerialPortWindows::normalizePortName("\\\\.\\COM12"), "\\\\.\\COM12");
}

TEST(PortNames, ComPortsSortByNumber) {
    std::vector<std::string> names{"COM12", "COM2", "COM1", "COM100", "COM3"};
    sortComPorts(names);
    EXPECT_EQ(names, (std::vector<std::string>{"COM1", "COM2", "COM3", "COM12", "COM100"}));
}

TEST(PortNames, NamesWithoutNumberFallBackToStringOrder) {
    std::vector<std::string> names{"COMX", "COM3", "ABC", "COM"};
    sortComPorts(names);
    EXPECT_EQ(names, (std::vector<std::string>{"ABC", "COM", "COM3", "COMX"}));
    EXPECT_TRUE(comPortLess("com3", "COM5"));
    EXPECT_FALSE(comPortLess("COM5", "com3"));
}

TEST(PortNames, DevicePathsSortByTrailingNumberWithinAStem) {
    std::vector<std::string> names{"/dev/ttyUSB10", "/dev/ttyS4", "/dev/ttyUSB2", "/dev/ttyACM1",
                                   "/dev/pts/12",   "/dev/pts/3", "/dev/ttyUSB0"};
    sortDevicePorts(names);
    EXPECT_EQ(names, (std::vector<std::string>{"/dev/pts/3", "/dev/pts/12", "/dev/ttyACM1", "/dev/ttyS4",
                                               "/dev/ttyUSB0", "/dev/ttyUSB2", "/dev/ttyUSB10"}));
    // COM names keep the order they have on Windows.
    std::vector<std::string> com{"COM12", "COM2", "COM1"};
    sortDevicePorts(com);
    EXPECT_EQ(com, (std::vector<std::string>{"COM1", "COM2", "COM12"}));
}

TEST(PortNames, DeviceOrderIsAStrictWeakOrderForAnyNames) {
    // Names that a rule of "number if both have one, else string" would put
    // in a cycle (ttyS2 < ttyS10 < ttyS1x < ttyS2), which std::sort must
    // never be given.
    const std::vector<std::string> names{"ttyS2",  "ttyS10", "ttyS1x", "ttyS",           "ttyS01", "ttyS1",
                                         "COM2",   "COM10",  "COMX",   "COM99999999999", "",       "9",
                                         "ttyS00", "ttyS0",  "a1b2",   "a1b10",          "a10b2"};
    for (const auto& a : names) {
        EXPECT_FALSE(devicePortLess(a, a)) << a;
        for (const auto& b : names) {
            if (devicePortLess(a, b)) {
                EXPECT_FALSE(devicePortLess(b, a)) << a << " " << b;
            }
            for (const auto& c : names) {
                if (devicePortLess(a, b) && devicePortLess(b, c)) {
                    EXPECT_TRUE(devicePortLess(a, c)) << a << " < " << b << " < " << c;
                }
            }
        }
    }
    // Distinct names are never equivalent, so the order is also stable.
    for (const auto& a : names) {
        for (const auto& b : names) {
            if (a != b) {
                EXPECT_TRUE(devicePortLess(a, b) || devicePortLess(b, a)) << a << " " << b;
            }
        }
    }
}

TEST(PortNames, SplitPathListSkipsEmptyItems) {
    EXPECT_EQ(splitPathList("/dev/a:/dev/b", ':'), (std::vector<std::string>{"/dev/a", "/dev/b"}));
    EXPECT_EQ(splitPathList("::/dev/a::", ':'), (std::vector<std::string>{"/dev/a"}));
    EXPECT_TRUE(splitPathList("", ':').empty());
    EXPECT_EQ(splitPathList("COM3;COM4", ';'), (std::vector<std::string>{"COM3", "COM4"}));
}
