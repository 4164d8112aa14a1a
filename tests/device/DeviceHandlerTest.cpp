#include "DeviceHandler.h"
#include "GlobalHandlerEvents.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>

using testsupport::CapturingLogger;

namespace {

DeviceInfo makeDevice(std::uint8_t address, const char* name, std::uint8_t fieldCount) {
    DeviceInfo info{};
    info.address = address;
    info.versionMajor = 1;
    info.versionMinor = 2;
    info.fieldCount = fieldCount;
    info.nameLength = static_cast<std::uint8_t>(std::strlen(name));
    std::memcpy(info.name, name, info.nameLength);
    return info;
}

FieldInfo makeField(std::uint8_t type, const char* name) {
    FieldInfo info;
    info.type = type;
    info.nameLength = static_cast<std::uint8_t>(std::strlen(name));
    std::memcpy(info.name, name, info.nameLength);
    return info;
}

class DeviceHandlerTest : public ::testing::Test {
protected:
    void SetUp() override { GlobalHandlerEvents::getInstance().clearAllHandlers(); }
    void TearDown() override { GlobalHandlerEvents::getInstance().clearAllHandlers(); }
    CapturingLogger log;
    DeviceHandler handler;
};

} // namespace

TEST(DeviceInfoLayout, MatchesTheResponseBody) {
    // Address, then the 73-byte body: the field count at body offset 4, the
    // name length at 9, the name from 10.
    EXPECT_EQ(sizeof(DeviceInfo), 74u);
    EXPECT_EQ(offsetof(DeviceInfo, fieldCount), 5u);
    EXPECT_EQ(offsetof(DeviceInfo, nameLength), 10u);
    EXPECT_EQ(offsetof(DeviceInfo, name), 11u);
}

TEST_F(DeviceHandlerTest, AddDeviceRaisesTheHandlerAndLogs) {
    int raised = 0;
    unsigned char seenAddress = 0;
    GlobalHandlerEvents::getInstance().addHandler(SET_CURRENT_DEVICE_ADDR, [&] {
        ++raised;
        seenAddress = handler.currentAddress;
        return GlobalHandlerEvents::Success;
    });
    EXPECT_EQ(handler.currentAddress, 255);
    handler.addDevice(makeDevice(2, "Board", 3));
    EXPECT_EQ(raised, 1);
    EXPECT_EQ(seenAddress, 2) << "the address is current before the handler runs";
    EXPECT_TRUE(log.contains("DeviceHandler: added device with address 2", BaseLogger::INFO));
    ASSERT_NE(handler.getDevice(2), nullptr);
    EXPECT_EQ(handler.getDevice(2)->getDeviceName(), "Board");
    EXPECT_FALSE(handler.getDevice(2)->isBootable());
}

TEST_F(DeviceHandlerTest, SecondAddKeepsTheFirstRecord) {
    handler.addDevice(makeDevice(3, "First", 2));
    handler.addDevice(makeDevice(7, "Other", 1));
    log.clear();
    handler.addDevice(makeDevice(3, "Second", 9));
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << "no handler, no added line";
    EXPECT_EQ(lines[0].type, BaseLogger::WARNING);
    // The address goes in as one raw byte, not as a number.
    EXPECT_EQ(lines[0].message, std::string("device with address ") + '\x03' + " already exists");
    EXPECT_EQ(handler.getDevice(3)->getDeviceName(), "First");
    EXPECT_EQ(handler.getDevice(3)->getInfo()->fieldCount, 2);
    EXPECT_EQ(handler.currentAddress, 7);
}

TEST_F(DeviceHandlerTest, UnknownAddressesAreQuiet) {
    handler.addDevice(makeDevice(4, "B", 1));
    log.clear();
    EXPECT_EQ(handler.getDevice(9), nullptr);
    EXPECT_EQ(handler.getDeviceList().size(), 1u);
    const std::uint32_t value = 5;
    handler.addDeviceField(9, 0, makeField(4, "x"));
    handler.setDeviceFieldValue(9, 0, &value);
    handler.setDeviceFieldValueLoaded(9, 0);
    handler.deleteFields(9);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(DeviceHandlerTest, FieldsAndValues) {
    handler.addDevice(makeDevice(1, "B", 2));
    handler.addDeviceField(1, 0, makeField(4, "erase"));
    const std::uint32_t value = 0x01020304;
    handler.setDeviceFieldValue(1, 0, &value);
    Field* field = handler.getDevice(1)->getField(0);
    ASSERT_NE(field, nullptr);
    EXPECT_EQ(field->getStatus(), Field::FIELD_STATUS_DEVICE_CHANGED);
    field->setData(true, &value);
    handler.setDeviceFieldValueLoaded(1, 0);
    EXPECT_EQ(field->getStatus(), Field::FIELD_STATUS_USER_SET) << "receipt of a set value changes nothing";

    handler.deleteFields(1);
    EXPECT_EQ(handler.getDevice(1)->getFieldCount(), 0u);
    EXPECT_EQ(handler.getDevice(1)->getInfo()->fieldCount, 0);
}

TEST_F(DeviceHandlerTest, ClearKeepsTheCurrentAddress) {
    handler.clearDeviceList();
    EXPECT_TRUE(handler.getDeviceList().empty());
    handler.addDevice(makeDevice(6, "B", 0));
    handler.clearDeviceList();
    EXPECT_TRUE(handler.getDeviceList().empty());
    EXPECT_EQ(handler.currentAddress, 6);
    // The same address can be found again after a clear.
    handler.addDevice(makeDevice(6, "B2", 0));
    EXPECT_EQ(handler.getDevice(6)->getDeviceName(), "B2");
}
