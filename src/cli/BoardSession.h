#pragma once

#include "BoardLink.h"
#include "BoardLog.h"
#include "DeviceSearch.h"
#include "Esp32Flash.h"
#include "FlowKeys.h"
#include "Stm32LoadFlow.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// One board on one port, driven by the board flows the window also drives:
// the search and the STM32 load over the payload protocol's threads, the
// ESP32 flash through the ROM loader. What is merid-flash's own: how long
// each stage may stand still, the words and code of an outcome, and a load
// that ends when the process is asked to stop. One session in a
// process: the handler registry and the loader's state are process-wide.
class BoardSession {
public:
    struct Outcome {
        bool ok = false;
        std::string reason; // the words of the log for a failure
        std::string code;   // a failure's (FailureCode)
    };
    using FieldSummary = DeviceSearch::FieldSummary;
    using DeviceSummary = DeviceSearch::DeviceSummary;
    // The device the loads go to, as the search found it.
    struct DeviceIdentity {
        std::string name;
        std::string version;
        // The value of its "serialNumber" field, when it describes one and
        // answered its request.
        std::optional<std::uint64_t> serialNumber;
    };
    // Percent done and bytes of the image done.
    using Progress = std::function<void(unsigned percent, std::uint64_t bytes)>;

    BoardSession(const std::string& port, int baud, BoardLog& log);
    ~BoardSession();
    BoardSession(const BoardSession&) = delete;
    BoardSession& operator=(const BoardSession&) = delete;

    // Opens the port; the port's words when it does not open.
    Outcome open();
    // The devices that answered a search, each with the fields it described.
    std::vector<DeviceSummary> search();
    // A search, and a field request for the serial number of the device
    // found last (the one a load goes to); nothing when no device answered.
    // The devices are then forgotten, so that a load finds them afresh.
    std::optional<DeviceIdentity> identifyDevice();
    // The erase command, the chunked transfer, and success only on the
    // device's answer to the finish step.
    Outcome loadStm32(const std::string& path, const Progress& progress);
    // The payload threads of a load end and the port opens again, so that
    // nothing but the ROM loader reads the link after the switch frame.
    Outcome leavePayloadProtocol();
    // The switch frame, the ROM loader, each part in address order (one
    // the flash holds already left alone with `skipUnchanged`), and with
    // `verify` the MD5 check. `outcomes` gets the parts done, also on a
    // failure, and `chip` what the connect found out about the chip.
    Outcome flashEsp32(const std::vector<FlashPart>& parts, const Esp32Flash::Options& options,
                       const Progress& progress, std::vector<PartOutcome>& outcomes, ChipIdentity& chip);

private:
    Stm32LoadFlow::Events loadEvents();
    Outcome waitForErase();
    Outcome waitForTransfer(std::uint64_t size, const Progress& progress);
    Outcome failure(const std::string& code, const std::string& fallback);
    // A load ended by a stop request (Platform::stopRequest).
    static Outcome stopped();
    std::optional<std::uint64_t> readField(std::uint8_t address, unsigned index);
    bool fieldAnswered(std::uint8_t address, unsigned index);
    std::optional<std::uint64_t> fieldValue(std::uint8_t address, unsigned index);

    BoardLog& log;
    BoardLink link;
    DeviceSearch devices{link};
    Stm32LoadFlow stm32{link, loadEvents()};
    FlowKeys keys{devices, stm32};
    std::string firmwarePath;
    // Set on the thread that drives the wait's clock.
    std::optional<Stm32LoadFlow::WaitEnd> waitEnd;
    // Set by whichever thread sent the erase.
    std::atomic<bool> eraseFailed{false};
};
