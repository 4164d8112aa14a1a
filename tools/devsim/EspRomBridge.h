#pragma once

#include "EspRomSimulator.h"
#include "RawLinkHandler.h"

#include <memory>

class DeviceSimulator;

// Puts the simulated ESP32 on the board's link: once the program has sent
// the frame that enters the ESP32's ROM loader, the simulator hands every
// byte to the chip and sends back what it answers. The chip outlives each
// bridge, so its flash is kept across switches and port reopens.
class EspRomBridge : public RawLinkHandler {
public:
    explicit EspRomBridge(std::shared_ptr<EspRomSimulator> chip);

    void onBytes(const std::uint8_t* data, std::size_t size, SimLink& link) override;
    void onPortClosed() override;
    void onPortOpened(SimLink& link) override;

    // Makes `chip` answer behind the enter frame on `simulator`'s link.
    static void install(DeviceSimulator& simulator, const std::shared_ptr<EspRomSimulator>& chip);

private:
    std::shared_ptr<EspRomSimulator> chip;
};
