#include "Field.h"
#include "Device.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

FieldInfo info(std::uint8_t type, const std::string& name) {
    FieldInfo out{type, static_cast<std::uint8_t>(name.size()), {}};
    std::memcpy(out.name, name.data(), name.size());
    return out;
}

} // namespace

TEST(Field, SizeOfEachTypeCode) {
    const int expected[] = {1, 1, 1, 2, 4, 8, 1, 2, 4, 8, 4, 8};
    for (int code = 0; code < 256; ++code) {
        EXPECT_EQ(Field(0, info(static_cast<std::uint8_t>(code), "f")).getTypeSize(),
                  code < 12 ? expected[code] : 0);
    }
}

TEST(Field, StatusFollowsTheDeviceUntilTheUserSets) {
    testsupport::CapturingLogger log;
    Field field(0, info(3, "speed")), odd(1, info(12, "odd")); // 2 bytes, and a type of size 0
    const unsigned char a[8] = {0x44, 0x33, 0x22, 0x11, 5, 6, 7, 8}, b[8] = {0xF0, 0, 9, 9, 9, 9, 9, 9};
    field.setData(false, a);
    EXPECT_EQ(field.getStatus(), Field::FIELD_STATUS_DEVICE_CHANGED);
    EXPECT_EQ(testsupport::Bytes(field.getData(), field.getData() + 8),
              (testsupport::Bytes{0x44, 0x33, 0, 0, 0, 0, 0, 0}));
    field.setData(false, a);
    EXPECT_EQ(field.getStatus(), Field::FIELD_STATUS_IN_SYNC);
    field.setData(true, b);
    // The log shows the first byte as a signed number, whatever the size.
    EXPECT_TRUE(log.contains("Field: current speed field value is \"-16\"", BaseLogger::INFO));
    field.setData(false, a);
    field.setNewStatus(Field::FIELD_STATUS_IN_SYNC);
    EXPECT_EQ(field.getStatus(), Field::FIELD_STATUS_USER_SET);
    EXPECT_EQ(field.getData()[0], 0x44); // the device's value is still taken in

    odd.setNewStatus(Field::FIELD_STATUS_DEVICE_CHANGED);
    odd.setData(false, a);
    EXPECT_EQ(odd.getStatus(), Field::FIELD_STATUS_IN_SYNC);
    odd.setData(true, a);
    EXPECT_EQ(odd.getStatus(), Field::FIELD_STATUS_USER_SET);
    EXPECT_EQ(odd.getData()[0], 0);
}

// Names compare over the field's own length: a shorter field name is a prefix
// match, and a nameless field matches everything.
TEST(Device, NameLookupsCompareTheFieldsOwnLength) {
    App::Device device(DeviceInfo{}), gaps(DeviceInfo{});
    EXPECT_EQ(device.getFieldIndexByName("erase"), -1);
    device.addNewField(0, info(4, "reboot"));
    device.addNewField(1, info(1, "era"));
    device.addNewField(0, info(4, "other")); // the first description of an index stays
    EXPECT_EQ(device.getFieldByName("erase"), device.getField(1));
    EXPECT_EQ(device.getFieldIndexByName("rebootNow"), 0);
    EXPECT_EQ(device.getFieldIndexByName("re"), -1);
    gaps.addNewField(0, info(1, ""));
    gaps.addNewField(5, info(1, "b"));
    EXPECT_EQ(gaps.getFieldIndexByName("anything"), 0);
    EXPECT_EQ(gaps.getField(5), nullptr); // at or above the count
}
