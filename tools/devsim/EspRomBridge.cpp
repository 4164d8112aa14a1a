#include "EspRomBridge.h"

#include "DeviceSimulator.h"

EspRomBridge::EspRomBridge(std::shared_ptr<EspRomSimulator> chip) : chip(std::move(chip)) {}

void EspRomBridge::onBytes(const std::uint8_t* data, std::size_t size, SimLink& link) {
    chip->feed(data, size, [&link](const std::uint8_t* out, std::size_t n, std::chrono::milliseconds delay) {
        link.send(out, n, delay);
    });
}

void EspRomBridge::onPortClosed() {
    chip->portClosed();
}

void EspRomBridge::onPortOpened(SimLink& link) {
    chip->portOpened([&link](const std::uint8_t* out, std::size_t n, std::chrono::milliseconds delay) {
        link.send(out, n, delay);
    });
}

void EspRomBridge::install(DeviceSimulator& simulator, const std::shared_ptr<EspRomSimulator>& chip) {
    simulator.setRawModeFactory(
        [chip]() -> std::unique_ptr<RawLinkHandler> { return std::make_unique<EspRomBridge>(chip); });
}
