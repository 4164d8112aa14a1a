#include "DeviceHandler.h"
#include "GlobalHandlerEvents.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

int raised = 0;

// Address, version, reserved bytes, field count, reserved bytes and a five-letter name.
DeviceInfo device(std::uint8_t address, std::uint8_t fieldCount, const char* name) {
    DeviceInfo info{address, 1, 0, {}, fieldCount, {}, 5, {}};
    std::memcpy(info.name, name, 5);
    return info;
}

} // namespace

TEST(DeviceHandler, SecondAddKeepsTheFirstRecordAndUnknownAddressesChangeNothing) {
    testsupport::CapturingLogger log;
    DeviceHandler handler;
    GlobalHandlerEvents::getInstance().addHandler(SET_CURRENT_DEVICE_ADDR, [] {
        ++raised;
        return GlobalHandlerEvents::Success;
    });
    EXPECT_EQ(handler.currentAddress, 255);
    handler.addDevice(device(3, 2, "First"));
    handler.addDevice(device(7, 1, "Other"));
    log.clear();
    handler.addDevice(device(3, 9, "Again"));
    GlobalHandlerEvents::getInstance().clearAllHandlers();
    EXPECT_EQ(raised, 2);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    // The address goes in as one raw byte, not as a number.
    EXPECT_EQ(lines[0].message, std::string("device with address ") + '\x03' + " already exists");
    EXPECT_EQ(handler.getDevice(3)->getDeviceName(), "First");
    EXPECT_EQ(handler.currentAddress, 7);

    log.clear();
    const std::uint32_t value = 1;
    handler.addDeviceField(9, 0, FieldInfo{});
    handler.setDeviceFieldValue(9, 0, &value);
    handler.deleteFields(9);
    EXPECT_EQ(handler.getDevice(9), nullptr);
    EXPECT_EQ(handler.getDeviceList().size(), 2u);
    EXPECT_TRUE(log.lines().empty());

    handler.addDeviceField(3, 0, FieldInfo{8, 0, {}});
    handler.deleteFields(3);
    EXPECT_EQ(handler.getDevice(3)->getFieldCount(), 0u);
    EXPECT_EQ(handler.getDevice(3)->getInfo()->fieldCount, 0);

    handler.clearDeviceList();
    EXPECT_EQ(handler.currentAddress, 7);
    handler.addDevice(device(3, 9, "Again"));
    EXPECT_EQ(handler.getDevice(3)->getDeviceName(), "Again");
}
