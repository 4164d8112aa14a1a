#include "Field.h"

#include <cstring>
#include <string>

Field::Field(unsigned char fieldIndex, const FieldInfo& fieldInfo)
    : info(fieldInfo), index(fieldIndex), logger(LoggerManager::getInstance()) {}

unsigned char* Field::getData() {
    return data;
}

const char* Field::getName() const {
    return info.name;
}

std::uint8_t Field::getNameLength() const {
    return info.nameLength;
}

FieldInfo* Field::getInfo() {
    return &info;
}

std::uint8_t Field::getType() const {
    return info.type;
}

std::uint8_t Field::getTypeSize() const {
    return typeSize(info.type);
}

Field::FieldStatus Field::getStatus() const {
    return status;
}

std::uint8_t Field::typeSize(std::uint8_t typeCode) {
    static const std::uint8_t kSizes[12] = {1, 1, 1, 2, 4, 8, 1, 2, 4, 8, 4, 8};
    return typeCode < 12 ? kSizes[typeCode] : 0;
}

void Field::setInfo(FieldInfo& newInfo) {
    info = newInfo;
}

void Field::setNewStatus(FieldStatus newStatus) {
    // A value set by the user stays so.
    if (status != FIELD_STATUS_USER_SET) {
        status = newStatus;
    }
}

void Field::setData(bool fromUser, const void* value) {
    const std::size_t size = getTypeSize();
    if (fromUser) {
        std::memcpy(data, value, size);
        status = FIELD_STATUS_USER_SET;
    } else if (info.type <= 11 && std::memcmp(value, data, size) != 0) {
        std::memcpy(data, value, size);
        setNewStatus(FIELD_STATUS_DEVICE_CHANGED);
    } else {
        setNewStatus(FIELD_STATUS_IN_SYNC);
    }
    // Only the first byte is shown: the line marks the event, it is no display of the value.
    std::string name(info.name, strnlen(info.name, sizeof(info.name)));
    logger.log("current " + name + " field value is \"" + std::to_string(static_cast<signed char>(data[0])) +
                   "\"",
               BaseLogger::INFO, "Field: ");
}
