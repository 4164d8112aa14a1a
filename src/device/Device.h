#pragma once

#include "Field.h"

#include <cstdint>
#include <map>
#include <string>

// The device-information response behind the status byte, byte for byte:
// the address and the 73-byte body.
#pragma pack(push, 1)
struct DeviceInfo {
    std::uint8_t address = 0;
    std::uint8_t versionMajor = 0;
    std::uint8_t versionMinor = 0;
    std::uint8_t reservedA[2] = {};
    std::uint8_t fieldCount = 0;
    std::uint8_t reservedB[4] = {};
    std::uint8_t nameLength = 0;
    char name[63] = {};
};
#pragma pack(pop)
static_assert(sizeof(DeviceInfo) == 74, "DeviceInfo must match the wire layout");

namespace App {

// One device on the link and the fields it has described so far.
class Device {
public:
    explicit Device(const DeviceInfo& deviceInfo);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    std::string& getDeviceName();
    DeviceInfo* getInfo();
    void addNewField(unsigned char index, FieldInfo fieldInfo);
    Field* getField(unsigned char index);
    Field* getFieldByName(const char* wanted);
    long long getFieldIndexByName(const char* wanted);
    void setFieldValue(unsigned char index, const void* value);
    void setFieldValueLoaded(unsigned char index);
    void deleteFields();
    std::size_t getFieldCount() const;
    void setDeviceBootable(bool value);
    bool isBootable() const;

private:
    bool bootable = false;
    DeviceInfo info;
    std::string name;
    std::map<unsigned char, Field*> fields;
};

} // namespace App
