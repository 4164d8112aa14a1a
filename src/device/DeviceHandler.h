#pragma once

#include "Device.h"
#include "LoggerManager.h"

#include <atomic>
#include <map>
#include <mutex>

// The devices found on the link, by address.
class DeviceHandler {
public:
    DeviceHandler();
    ~DeviceHandler();
    DeviceHandler(const DeviceHandler&) = delete;
    DeviceHandler& operator=(const DeviceHandler&) = delete;

    void addDevice(DeviceInfo info);
    void addDeviceField(unsigned char address, unsigned char index, FieldInfo info);
    std::map<unsigned int, App::Device*>& getDeviceList();
    // A copy of the list, taken under the lock, for readers on other threads.
    std::map<unsigned int, App::Device*> getDeviceListCopy();
    App::Device* getDevice(unsigned long long address);
    void clearDeviceList();
    void setDeviceFieldValue(unsigned char address, unsigned char index, const void* value);
    void setDeviceFieldValueLoaded(unsigned char address, unsigned char index);
    void deleteFields(unsigned char address);

    // The listener fills the model while the window reads it; this lock keeps
    // each step whole without changing the order the flows rely on.
    std::recursive_mutex& getMutex();

    std::atomic<unsigned char> currentAddress{255};

private:
    LoggerManager& logger;
    std::map<unsigned int, App::Device*> devices;
    std::recursive_mutex mutex;
    // Devices dropped by clearDeviceList; freed with the handler, since a
    // reader on another thread may still hold one.
    std::map<unsigned int, App::Device*> retired;
};
