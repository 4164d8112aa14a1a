#pragma once

#include "PortNames.h"
#include "PortUsage.h"
#include "SerialPort.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

// The serial port on Windows, over the system's communications functions.
// It holds one open handle, a speed and the name of the port.
//
// The handle is kept as an integer, so that this header needs no system
// header and the naming rules below build and are tested everywhere. As on
// POSIX, PortUsage keeps the handle valid until running reads and writes
// have left, and a close ends the read's wait early.
class SerialPortWindows : public SerialPort {
public:
    // The system's invalid handle value: all bits set.
    static constexpr std::intptr_t COM_INVALID_HANDLE = -1;

    SerialPortWindows();
    ~SerialPortWindows() override;

    // Probes COM1 to COM256; the names come sorted by their number.
    std::vector<std::string> getAvailablePorts() override;
    UsbTypes::Status openPort(std::string& name) override;
    UsbTypes::Status closePort() override;
    bool isOpen() const override;
    bool serialPortConfig(UsbTypes::Baudrate speed) override;
    void verifyPortSettings() override;
    UsbTypes::IoResult writeDataImpl(unsigned char* data, unsigned long long size) override;
    UsbTypes::IoResult readDataImpl(unsigned char* data, unsigned long long size, int timeoutMs) override;
    void speedConfig(UsbTypes::Baudrate speed) override;

    // COM names get the \\.\ device prefix; everything else passes as it is.
    static std::string normalizePortName(const std::string& name) {
        return PortNames::normalizePortName(name);
    }

    // The speed that the next configure writes to the line.
    UsbTypes::Baudrate configuredBaudrate() const { return baudrate.load(); }

private:
    std::string currentPortName() const;
    // Sets how long the driver's ReadFile waits for the first byte (0: not at
    // all), unless that wait is already set.
    bool setReadWait(void* port, unsigned long waitMs);

    std::atomic<std::intptr_t> handle{COM_INVALID_HANDLE};
    // The read wait the driver holds now, in milliseconds.
    std::atomic<unsigned long> readWaitMs{0};
    std::atomic<UsbTypes::Baudrate> baudrate{UsbTypes::Baud115200};
    // The name as the caller gave it, for the write failure message.
    std::string portName;
    mutable std::mutex nameMutex;

    // Serialises open and close; recursive because openPort closes first.
    std::recursive_mutex lifecycleMutex;
    PortUsage usage;
};
