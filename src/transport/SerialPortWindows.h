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
// The handle is opened for overlapped I/O: the system serialises the calls
// on a synchronous handle, so a read waiting for an answer would hold up the
// write of the next request. A read takes everything queued at once, or
// waits for the first byte to arrive and takes the bytes behind it with it,
// and hands out what the caller asked for of it, the rest to later reads;
// a write waits for its own completion, so the caller's contract stays
// synchronous.
//
// The handle is kept as an integer, so that this header needs no system
// header and the naming rules below build and are tested everywhere. As on
// POSIX, PortUsage keeps the handle valid until running reads and writes
// have left, and a close wakes the calls that wait on the line.
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
    // Takes what the line has into `ahead`, waiting up to `timeoutMs` for
    // the first byte when nothing is queued.
    UsbTypes::IoResult fillAhead(void* port, int timeoutMs);
    // Appends `count` bytes that are already queued to `ahead`.
    UsbTypes::IoResult readQueued(void* port, unsigned long count);
    // Logs the first read failure of a failing line, and holds the reads
    // that fail after it until their time-out or a close, so that a caller
    // reading in a loop neither floods the log nor spins on a dead line.
    UsbTypes::IoResult failedRead(const char* call, unsigned long error, long long waitMs);
    void logWriteFailure(unsigned long error);
    std::string currentPortName() const;

    std::atomic<std::intptr_t> handle{COM_INVALID_HANDLE};
    // Set while a close is under way: it ends every wait on the line.
    void* closing = nullptr;
    // One read and one write at a time, each with its completion event.
    std::mutex readMutex;
    void* readDone = nullptr;
    std::mutex writeMutex;
    void* writeDone = nullptr;
    // Bytes taken from the line and not yet handed out, from `aheadAt` on:
    // the line's queue is read whole, however little a read asks for.
    std::vector<unsigned char> ahead;
    std::size_t aheadAt = 0;
    // Set by a failed read once it is logged; cleared when bytes come in and
    // at the next open.
    std::atomic<bool> readFailing{false};
    std::atomic<UsbTypes::Baudrate> baudrate{UsbTypes::Baud115200};
    // The name as the caller gave it, for the write failure message.
    std::string portName;
    mutable std::mutex nameMutex;

    // Serialises open and close; recursive because openPort closes first.
    std::recursive_mutex lifecycleMutex;
    PortUsage usage;
};
