#include "DeviceHandler.h"
#include "GlobalHandlerEvents.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

// Address, version, reserved bytes, field count, reserved bytes and the name.
DeviceInfo device(std::uint8_t address, std::uint8_t fieldCount, const char* name) {
    DeviceInfo info{address, 1, 0, {}, fieldCount, {}, 5, {}};
    std::memcpy(info.name, name, 5);
    return info;
}

class DeviceHandlerTest : public ::testing::Test {
protected:
    void TearDown() override { GlobalHandlerEvents::getInstance().clearAllHandlers(); }
    testsupport::CapturingLogger log;
    DeviceHandler handler;
};

} // namespace

TEST_F(DeviceHandlerTest, SecondAddOfAnAddressKeepsTheFirstRecordUntilAClear) {
    int raised = 0;
    GlobalHandlerEvents::getInstance().addHandler(SET_CURRENT_DEVICE_ADDR, [&] {
        ++raised;
        return GlobalHandlerEvents::Success;
    });
    EXPECT_EQ(handler.currentAddress, 255);
    handler.addDevice(device(3, 2, "First"));
    handler.addDevice(device(7, 1, "Other"));
    log.clear();
    handler.addDevice(device(3, 9, "Again"));
    EXPECT_EQ(raised, 2);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    // The address goes in as one raw byte, not as a number.
    EXPECT_EQ(lines[0].message, std::string("device with address ") + '\x03' + " already exists");
    EXPECT_EQ(handler.getDevice(3)->getDeviceName(), "First");
    EXPECT_EQ(handler.currentAddress, 7);

    handler.clearDeviceList();
    EXPECT_EQ(handler.currentAddress, 7);
    handler.addDevice(device(3, 9, "Again"));
    EXPECT_EQ(handler.getDevice(3)->getDeviceName(), "Again");
}

TEST_F(DeviceHandlerTest, FieldsOfKnownAndUnknownAddresses) {
    handler.addDevice(device(1, 2, "Board"));
    handler.addDeviceField(1, 0, FieldInfo{8, 0, {}});
    const std::uint32_t value = 0x01020304;
    Field* field = handler.getDevice(1)->getField(0);
    ASSERT_NE(field, nullptr);
    field->setData(true, &value);
    handler.setDeviceFieldValueLoaded(1, 0); // the receipt of a set changes nothing
    EXPECT_EQ(field->getStatus(), Field::FIELD_STATUS_USER_SET);
    handler.deleteFields(1);
    EXPECT_EQ(handler.getDevice(1)->getFieldCount(), 0u);
    EXPECT_EQ(handler.getDevice(1)->getInfo()->fieldCount, 0);

    log.clear();
    handler.addDeviceField(9, 0, FieldInfo{});
    handler.setDeviceFieldValue(9, 0, &value);
    handler.setDeviceFieldValueLoaded(9, 0);
    handler.deleteFields(9);
    EXPECT_EQ(handler.getDevice(9), nullptr);
    EXPECT_EQ(handler.getDeviceList().size(), 1u);
    EXPECT_TRUE(log.lines().empty());
}
