#pragma once

#include "BoardLink.h"
#include "DeviceSearch.h"
#include "FlowKeys.h"
#include "Stm32LoadFlow.h"
#include "TestSupport.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>

// The board flows on one port, as merid-flash drives them, for the tests
// that need a link to the simulated board: the search, and the STM32 load
// with the wait's clock driven here.
class LinkSession {
public:
    explicit LinkSession(const std::string& port) { setPort(port); }
    // Over a port of the caller's, for example one that watches the link.
    LinkSession(const std::string& port, std::unique_ptr<SerialPort> serial) : link(std::move(serial)) {
        setPort(port);
    }

    ~LinkSession() { link.close(); }

    UsbCommunication& usb() { return link.usb(); }

    // A search; true once the device found last has described its fields.
    bool discover(std::chrono::milliseconds timeout) {
        search.start();
        return testsupport::waitUntil(
            [this] {
                return link.devices().getDevice(link.currentDevice()) &&
                       search.described(link.currentDevice());
            },
            timeout);
    }

    // The load's press with `path` as the chosen image, then its wait on a
    // clock of `period` until the erase has gone out or the wait has ended.
    void startLoad(const std::string& path, std::chrono::milliseconds period = Stm32LoadFlow::kTick) {
        firmwarePath = path;
        load.start();
        do {
            std::this_thread::sleep_for(period);
        } while (load.tick());
    }

    // The STM32 load of `path`; true once the device has confirmed its end.
    bool loadStm32(const std::string& path, std::chrono::milliseconds timeout) {
        startLoad(path);
        return testsupport::waitUntil([this] { return load.percent() == 100; }, timeout);
    }

    BoardLink link;
    DeviceSearch search{link};
    std::string firmwarePath;
    Stm32LoadFlow load{link, events()};
    FlowKeys keys{search, load};
    // How the last wait ended without an erase, if it did.
    std::optional<Stm32LoadFlow::WaitEnd> waitEnd;

private:
    void setPort(const std::string& port) {
        link.usb().portName = port;
        link.usb().baudrate = UsbTypes::Baud921600;
    }

    Stm32LoadFlow::Events events() {
        Stm32LoadFlow::Events handlers;
        handlers.waitEnded = [this](Stm32LoadFlow::WaitEnd end) { waitEnd = end; };
        handlers.eraseFailed = [](Stm32LoadFlow::EraseFault) {};
        handlers.imagePath = [this] { return firmwarePath; };
        return handlers;
    }
};
