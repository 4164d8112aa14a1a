#pragma once

#include "LoggerManager.h"

#include <cstdint>

// Type code, name length and name of a field, as the device describes it.
struct FieldInfo {
    std::uint8_t type = 0;
    std::uint8_t nameLength = 0;
    char name[63] = {};
};

// A named, typed value of at most 8 bytes, kept as the device's raw bytes.
class Field {
public:
    enum FieldStatus : std::uint32_t {
        FIELD_STATUS_IN_SYNC = 0,
        FIELD_STATUS_USER_SET = 1,
        FIELD_STATUS_DEVICE_CHANGED = 2,
    };

    Field(unsigned char index, const FieldInfo& info);

    unsigned char* getData();
    const char* getName() const;
    std::uint8_t getNameLength() const;
    FieldInfo* getInfo();
    std::uint8_t getType() const;
    std::uint8_t getTypeSize() const;
    FieldStatus getStatus() const;

    void setInfo(FieldInfo& newInfo);
    void setNewStatus(FieldStatus newStatus);
    void setData(bool fromUser, const void* value);

    static std::uint8_t typeSize(std::uint8_t typeCode);

private:
    FieldInfo info;
    std::uint8_t index;
    unsigned char data[8] = {};
    FieldStatus status = FIELD_STATUS_IN_SYNC;
    LoggerManager& logger;
};
