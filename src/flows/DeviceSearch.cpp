#include "DeviceSearch.h"

#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPoll{20};

bool isDescribed(App::Device& device) {
    return device.getFieldCount() >= device.getInfo()->fieldCount;
}

} // namespace

void DeviceSearch::start() {
    link.startThreads();
    link.sender().search();
}

void DeviceSearch::describeCurrent() {
    link.takeCurrentDevice();
    link.sender().getInfoFields(link.currentDevice(), 0);
}

bool DeviceSearch::allDescribed() {
    std::lock_guard<std::recursive_mutex> lock(link.devices().getMutex());
    auto& devices = link.devices().getDeviceList();
    if (devices.empty()) {
        return false;
    }
    for (const auto& [key, device] : devices) {
        if (!isDescribed(*device)) {
            return false;
        }
    }
    return true;
}

bool DeviceSearch::described(std::uint8_t address) {
    std::lock_guard<std::recursive_mutex> lock(link.devices().getMutex());
    App::Device* device = link.devices().getDevice(address);
    return device != nullptr && isDescribed(*device);
}

std::vector<DeviceSearch::DeviceSummary> DeviceSearch::run() {
    start();
    const auto begin = Clock::now();
    auto lastChange = begin;
    std::size_t known = 0;
    while (Clock::now() - begin < kBudget && link.usb().isConnected()) {
        const std::size_t count = link.devices().getDeviceListCopy().size();
        if (count != known) {
            known = count;
            lastChange = Clock::now();
        }
        if (allDescribed() && Clock::now() - lastChange >= kQuiet) {
            break;
        }
        std::this_thread::sleep_for(kPoll);
    }
    return summaries();
}

std::vector<DeviceSearch::DeviceSummary> DeviceSearch::summaries() {
    std::vector<DeviceSummary> result;
    std::lock_guard<std::recursive_mutex> lock(link.devices().getMutex());
    for (const auto& [key, device] : link.devices().getDeviceList()) {
        const DeviceInfo& info = *device->getInfo();
        DeviceSummary summary;
        summary.address = info.address;
        summary.name = device->getDeviceName();
        summary.version = std::to_string(info.versionMajor) + "." + std::to_string(info.versionMinor);
        for (unsigned index = 0; index < info.fieldCount; ++index) {
            if (Field* field = device->getField(static_cast<unsigned char>(index))) {
                summary.fields.push_back({index, field->getName(), field->getType()});
            }
        }
        result.push_back(std::move(summary));
    }
    return result;
}
