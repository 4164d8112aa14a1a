#include "Device.h"

#include <cstring>

namespace App {
namespace {

// Compares the first `length` bytes of a field's name with the wanted name.
// The wanted name is read no further than its terminator, as if zero-padded.
bool namePrefixMatches(const char* fieldName, std::size_t length, const char* wanted) {
    bool ended = false;
    for (std::size_t i = 0; i < length; ++i) {
        char other = ended ? '\0' : wanted[i];
        if (other == '\0') {
            ended = true;
        }
        if (fieldName[i] != other) {
            return false;
        }
    }
    return true;
}

} // namespace

Device::Device(const DeviceInfo& deviceInfo) : info(deviceInfo) {
    info.name[sizeof(info.name) - 1] = '\0';
    name.assign(info.name, strnlen(info.name, sizeof(info.name)));
}

Device::~Device() {
    deleteFields();
}

std::string& Device::getDeviceName() {
    return name;
}

DeviceInfo* Device::getInfo() {
    return &info;
}

void Device::addNewField(unsigned char index, FieldInfo fieldInfo) {
    // The first description of an index stays.
    if (fields.count(index) != 0) {
        return;
    }
    fields[index] = new Field(index, fieldInfo);
}

Field* Device::getField(unsigned char index) {
    if (index >= fields.size()) {
        return nullptr;
    }
    // With a gap in the keys this leaves a null entry behind, as a lookup by subscript does.
    return fields[index];
}

Field* Device::getFieldByName(const char* wanted) {
    long long index = getFieldIndexByName(wanted);
    return index < 0 ? nullptr : getField(static_cast<unsigned char>(index));
}

long long Device::getFieldIndexByName(const char* wanted) {
    // Only the field's own name length counts: a field whose whole name
    // starts the wanted one matches, and a nameless field matches anything.
    const std::size_t count = fields.size();
    for (std::size_t i = 0; i < count && i < 256; ++i) {
        Field* field = getField(static_cast<unsigned char>(i));
        if (field == nullptr) {
            continue;
        }
        if (namePrefixMatches(field->getName(), field->getNameLength(), wanted)) {
            return static_cast<long long>(i);
        }
    }
    return -1;
}

void Device::setFieldValue(unsigned char index, const void* value) {
    auto found = fields.find(index);
    if (found != fields.end() && found->second != nullptr) {
        found->second->setData(false, value);
    }
}

void Device::setFieldValueLoaded(unsigned char /*index*/) {
    // The receipt of a set value changes nothing: the field stays as the user set it.
}

void Device::deleteFields() {
    for (auto& entry : fields) {
        delete entry.second;
    }
    fields.clear();
}

std::size_t Device::getFieldCount() const {
    return fields.size();
}

void Device::setDeviceBootable(bool value) {
    bootable = value;
}

bool Device::isBootable() const {
    return bootable;
}

} // namespace App
