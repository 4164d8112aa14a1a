#pragma once

#include "PortUsage.h"
#include "SerialPort.h"

#include <termios.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

// The serial port on POSIX systems, over a termios device: raw 8N1, DTR and
// RTS held on, no flow control. The device is held exclusively while open.
//
// Reads and writes may run on two threads at once while a third opens or
// closes: the descriptor is atomic and PortUsage keeps it valid until every
// running call has left; a close wakes calls that wait on the line.
class SerialPortPosix : public SerialPort {
public:
    SerialPortPosix();
    ~SerialPortPosix() override;

    // Device nodes of serial drivers plus the existing paths named in
    // MERID_EXTRA_PORTS (colon-separated), in PortNames::devicePortLess order.
    std::vector<std::string> getAvailablePorts() override;
    UsbTypes::Status openPort(std::string& name) override;
    UsbTypes::Status closePort() override;
    bool isOpen() const override;
    bool serialPortConfig(UsbTypes::Baudrate speed) override;
    void verifyPortSettings() override;
    UsbTypes::IoResult writeDataImpl(unsigned char* data, unsigned long long size) override;
    UsbTypes::IoResult readDataImpl(unsigned char* data, unsigned long long size, int timeoutMs) override;
    void speedConfig(UsbTypes::Baudrate speed) override;

    // The speed that the next configure writes to the line.
    UsbTypes::Baudrate configuredBaudrate() const { return baudrate.load(); }

    // How long one write may take before it counts as partial.
    static constexpr int kWriteTimeoutMs = 2000;

private:
    enum class WaitOutcome { Ready, TimedOut, Closing, Failed };
    struct Wait {
        WaitOutcome outcome = WaitOutcome::TimedOut;
        short revents = 0;
        int error = 0;
    };

    Wait waitFor(int handle, short events, int timeoutMs);
    void wakeWaiters();
    void drainWakeups();
    void logOpenFailure(const std::string& name, const char* call, int error);
    void logReadFailure(const std::string& call, int error);
    void logWriteFailure(int error);
    std::string currentPortName() const;
    void keepOriginalSettings(int handle, const std::string& name);

    std::atomic<int> fd{-1};
    std::atomic<UsbTypes::Baudrate> baudrate{UsbTypes::Baud115200};
    std::string portName;
    mutable std::mutex nameMutex;

    // Serialises open and close; recursive because openPort closes first.
    std::recursive_mutex lifecycleMutex;
    PortUsage usage;
    // A byte written here wakes reads and writes waiting in poll().
    int wakePipe[2] = {-1, -1};
    // Under the lifecycle lock: the line's own settings, given back on
    // close, and the line they belong to (empty for none).
    termios original{};
    std::string originalFor;
    // The last read failure logged, so that a dead line is reported once and
    // not on every poll of the listener.
    std::atomic<int> lastReadError{0};
};
