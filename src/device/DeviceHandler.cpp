#include "DeviceHandler.h"

#include "GlobalHandlerEvents.h"

#include <string>

namespace {
const char* const kTag = "DeviceHandler: ";
}

DeviceHandler::DeviceHandler() : logger(LoggerManager::getInstance()) {}

DeviceHandler::~DeviceHandler() {
    for (auto& entry : devices) {
        delete entry.second;
    }
    for (auto& entry : retired) {
        delete entry.second;
    }
}

std::recursive_mutex& DeviceHandler::getMutex() {
    return mutex;
}

void DeviceHandler::addDevice(DeviceInfo info) {
    {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        // A known address keeps its first record; the line shows the raw byte.
        if (devices.count(info.address) != 0) {
            logger.log("device with address " + std::string(1, static_cast<char>(info.address)) +
                           " already exists",
                       BaseLogger::WARNING, kTag);
            return;
        }
        currentAddress = info.address;
        devices[info.address] = new App::Device(info);
    }
    // The handler reads the model itself; the receive path that adds the
    // device still holds the model's recursive lock while it runs.
    GlobalHandlerEvents::getInstance()._executeHandler(SET_CURRENT_DEVICE_ADDR);
    logger.log("added device with address " + std::to_string(info.address), BaseLogger::INFO, kTag);
}

void DeviceHandler::addDeviceField(unsigned char address, unsigned char index, FieldInfo info) {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    auto found = devices.find(address);
    if (found != devices.end()) {
        found->second->addNewField(index, info);
    }
}

std::map<unsigned int, App::Device*>& DeviceHandler::getDeviceList() {
    return devices;
}

std::map<unsigned int, App::Device*> DeviceHandler::getDeviceListCopy() {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    return devices;
}

App::Device* DeviceHandler::getDevice(unsigned long long address) {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    auto found = devices.find(static_cast<unsigned int>(address));
    if (found == devices.end() || address > 0xFFFFFFFFull) {
        return nullptr;
    }
    return found->second;
}

void DeviceHandler::clearDeviceList() {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    for (auto& entry : devices) {
        auto old = retired.find(entry.first);
        if (old != retired.end()) {
            delete old->second;
            retired.erase(old);
        }
        retired[entry.first] = entry.second;
    }
    devices.clear();
}

void DeviceHandler::setDeviceFieldValue(unsigned char address, unsigned char index, const void* value) {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    auto found = devices.find(address);
    if (found != devices.end()) {
        found->second->setFieldValue(index, value);
    }
}

void DeviceHandler::setDeviceFieldValueLoaded(unsigned char address, unsigned char index) {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    auto found = devices.find(address);
    if (found != devices.end()) {
        found->second->setFieldValueLoaded(index);
    }
}

void DeviceHandler::deleteFields(unsigned char address) {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    auto found = devices.find(address);
    if (found != devices.end()) {
        found->second->deleteFields();
        found->second->getInfo()->fieldCount = 0;
    }
}
