#pragma once

#include "BoardLog.h"
#include "FastCrc8.h"
#include "PayloadHandler.h"
#include "SerialListener.h"
#include "SerialSender.h"
#include "UsbCommunication.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// One board on one port, driven as the window drives it: the payload
// protocol's threads for a search and the STM32 load, the ROM loader for the
// ESP32. One session in a process: the handler registry and the loader's
// state are process-wide.
class BoardSession {
public:
    struct Outcome {
        bool ok = false;
        std::string reason; // the words of the log for a failure
    };
    struct FieldSummary {
        unsigned index = 0;
        std::string name;
        unsigned type = 0;
    };
    struct DeviceSummary {
        unsigned address = 0;
        std::string name;
        std::string version;
        std::vector<FieldSummary> fields;
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
    // The erase command, the chunked transfer, and success only on the
    // device's answer to the finish step.
    Outcome loadStm32(const std::string& path, const Progress& progress);
    // The switch frame, the ROM loader, and with `verify` the MD5 check.
    Outcome flashEsp32(const std::string& path, bool compress, bool verify, const Progress& progress);

private:
    using Clock = std::chrono::steady_clock;

    void registerHandlers();
    void startThreads();
    bool waitForEraseField(unsigned char& eraseIndex);
    bool sendEraseCommand(unsigned char eraseIndex);
    Outcome waitForTransfer(std::uint64_t size, const Progress& progress);
    bool devicesDescribed();
    Outcome failure(const std::string& fallback);

    BoardLog& log;
    UsbCommunication usb;
    PayloadHandler handler;
    PayloadProtocol::SerialListener<UsbCommunication&, PayloadHandler> listener{
        usb, handler, PayloadHandler::getDefaultTimeout()};
    PayloadProtocol::SerialSender<256, UsbCommunication&, PayloadHandler, FastCrc8> sender{usb, handler};
    std::atomic<std::uint8_t> address{0};
    std::string firmwarePath;
    bool threadsStarted = false;
};
