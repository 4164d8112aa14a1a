#include "Device.h"
#include "Field.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>

using testsupport::CapturingLogger;

namespace {

FieldInfo makeInfo(std::uint8_t type, const char* name) {
    FieldInfo info;
    info.type = type;
    info.nameLength = static_cast<std::uint8_t>(std::strlen(name));
    std::memcpy(info.name, name, info.nameLength);
    return info;
}

} // namespace

TEST(Field, TypeSizeTable) {
    const std::uint8_t expected[] = {1, 1, 1, 2, 4, 8, 1, 2, 4, 8, 4, 8};
    for (int code = 0; code < 12; ++code) {
        EXPECT_EQ(Field(0, makeInfo(static_cast<std::uint8_t>(code), "f")).getTypeSize(), expected[code])
            << "code " << code;
    }
    EXPECT_EQ(Field::typeSize(12), 0);
    EXPECT_EQ(Field::typeSize(255), 0);
}

TEST(Field, StatusTransitions) {
    CapturingLogger log;
    Field field(0, makeInfo(4, "speed"));
    EXPECT_EQ(field.getStatus(), Field::FIELD_STATUS_IN_SYNC);

    const std::uint32_t a = 0x11223344, b = 0x55667788;
    field.setData(false, &a);
    EXPECT_EQ(field.getStatus(), Field::FIELD_STATUS_DEVICE_CHANGED);
    EXPECT_EQ(std::memcmp(field.getData(), &a, 4), 0);
    field.setData(false, &a);
    EXPECT_EQ(field.getStatus(), Field::FIELD_STATUS_IN_SYNC) << "an equal value brings it back in sync";

    field.setData(true, &b);
    EXPECT_EQ(field.getStatus(), Field::FIELD_STATUS_USER_SET);
    field.setData(false, &a);
    EXPECT_EQ(field.getStatus(), Field::FIELD_STATUS_USER_SET) << "the user's status is sticky";
    EXPECT_EQ(std::memcmp(field.getData(), &a, 4), 0) << "the device's value is still taken in";
    field.setNewStatus(Field::FIELD_STATUS_IN_SYNC);
    EXPECT_EQ(field.getStatus(), Field::FIELD_STATUS_USER_SET);

    // The log shows the first byte as a signed number, whatever the size.
    EXPECT_TRUE(log.contains("Field: current speed field value is \"68\"", BaseLogger::INFO));
    const std::uint32_t negative = 0x000000F0;
    field.setData(true, &negative);
    EXPECT_TRUE(log.contains("current speed field value is \"-16\""));
}

TEST(Field, OnlyTheTypeSizeCounts) {
    CapturingLogger log;
    Field field(0, makeInfo(3, "w")); // 2 bytes
    const unsigned char value[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    field.setData(true, value);
    const unsigned char expected[8] = {1, 2, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(field.getData(), expected, 8), 0);

    Field odd(1, makeInfo(12, "odd")); // unknown code: size 0
    odd.setData(true, value);
    EXPECT_EQ(odd.getStatus(), Field::FIELD_STATUS_USER_SET);
    EXPECT_EQ(odd.getData()[0], 0);

    Field odd2(2, makeInfo(40, "odd2"));
    odd2.setNewStatus(Field::FIELD_STATUS_DEVICE_CHANGED);
    odd2.setData(false, value);
    EXPECT_EQ(odd2.getStatus(), Field::FIELD_STATUS_IN_SYNC);
    EXPECT_EQ(odd2.getData()[0], 0);
}

TEST(Device, NameLookupsMatchByTheFieldsOwnLength) {
    CapturingLogger log;
    DeviceInfo info{};
    info.address = 2;
    std::memcpy(info.name, "Board", 5);
    App::Device device(info);
    EXPECT_EQ(device.getDeviceName(), "Board");
    EXPECT_EQ(device.getFieldIndexByName("erase"), -1) << "no fields";
    EXPECT_EQ(device.getFieldByName("erase"), nullptr);

    device.addNewField(0, makeInfo(4, "reboot"));
    device.addNewField(1, makeInfo(1, "era"));
    device.addNewField(2, makeInfo(8, "erase"));
    // "era" is the start of "erase", so it wins by coming first.
    EXPECT_EQ(device.getFieldIndexByName("erase"), 1);
    EXPECT_EQ(device.getFieldByName("erase"), device.getField(1));
    EXPECT_EQ(device.getFieldIndexByName("reboot"), 0);
    EXPECT_EQ(device.getFieldIndexByName("rebootNow"), 0) << "the wanted name's length plays no part";
    EXPECT_EQ(device.getFieldIndexByName("re"), -1) << "the field's whole name must match";
    EXPECT_EQ(device.getFieldIndexByName("missing"), -1);

    // The first description of an index stays.
    device.addNewField(0, makeInfo(4, "other"));
    EXPECT_EQ(std::string(device.getField(0)->getName()), "reboot");
    EXPECT_EQ(device.getFieldCount(), 3u);
    EXPECT_EQ(device.getField(3), nullptr);
}

TEST(Device, NamelessFieldMatchesEverything) {
    CapturingLogger log;
    App::Device device(DeviceInfo{});
    device.addNewField(0, makeInfo(1, ""));
    device.addNewField(1, makeInfo(8, "erase"));
    EXPECT_EQ(device.getFieldIndexByName("erase"), 0);
    EXPECT_EQ(device.getFieldIndexByName("anything"), 0);
}

TEST(Device, GapInIndicesYieldsNull) {
    CapturingLogger log;
    App::Device device(DeviceInfo{});
    device.addNewField(0, makeInfo(1, "a"));
    device.addNewField(5, makeInfo(1, "b"));
    EXPECT_EQ(device.getField(5), nullptr) << "indices at or above the count are out";
    EXPECT_EQ(device.getField(1), nullptr);
    EXPECT_EQ(device.getFieldIndexByName("b"), -1);
}
