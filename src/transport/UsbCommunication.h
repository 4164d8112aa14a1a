#pragma once

#include "LoggerManager.h"
#include "SerialPort.h"
#include "UsbTypes.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// The program's one link to the device. Everything that talks to the board
// goes through it: the payload sender writes, the payload listener reads,
// the loader port layer does both while the ESP32 is flashed, and the
// window's thread connects, disconnects and lists ports.
//
// The method in force is atomic and connect, disconnect and the drop of a
// dead link are serialised; reads and writes run at the same time without a
// lock of this class (the port keeps its handle safe for them).
class UsbCommunication {
public:
    enum ConnectionMethod : std::int32_t { MethodNone = 0, MethodUsb = 1, MethodCom = 2 };

    // Makes the platform's serial port; opens nothing.
    UsbCommunication();
    // Uses the given port, or none at all when it is null.
    explicit UsbCommunication(std::unique_ptr<SerialPort> port);
    virtual ~UsbCommunication();

    UsbCommunication(const UsbCommunication&) = delete;
    UsbCommunication& operator=(const UsbCommunication&) = delete;

    UsbTypes::Status connect(ConnectionMethod method);
    UsbTypes::Status disconnect();
    bool isConnected();
    // The method in force: MethodNone while closed.
    ConnectionMethod getConnectionMethod() const { return connectionMethod.load(); }
    UsbTypes::Status toDetermineDevices(ConnectionMethod method);
    UsbTypes::Status write(void* data, unsigned long long size);
    // Waits up to one second.
    UsbTypes::IoResult read(void* data, unsigned long long size);
    UsbTypes::IoResult read(void* data, unsigned long long size, int timeoutMs);
    // Only a pause of `timeoutMs`, without a look at the port; always true.
    bool waitForReadyRead(unsigned long long timeoutMs);

protected:
    UsbTypes::Status writeDataComImpl(unsigned char* data, unsigned long long size);
    UsbTypes::IoResult readDataComImpl(unsigned char* data, unsigned long long size);
    // Where a direct USB transport would go; nothing calls them.
    void writeDataUsbImpl(unsigned char* data, unsigned long long size);
    UsbTypes::IoResult readDataUsbImpl(unsigned char* data, unsigned long long size);

private:
    UsbTypes::IoResult readWithPort(unsigned char* data, unsigned long long size, int timeoutMs);

    std::atomic<ConnectionMethod> connectionMethod{MethodNone};
    std::unique_ptr<SerialPort> serialPort;
    LoggerManager* logger;

public:
    // Written by the connection dialog before each connect.
    std::string portName;
    // The last list found by toDetermineDevices.
    std::vector<std::string> availablePorts;
    // Written by the connection dialog before each connect; the port's own
    // default until then.
    UsbTypes::Baudrate baudrate = UsbTypes::Baud115200;

private:
    // Serialises connect, disconnect and the drop of a dead link.
    std::mutex connectionMutex;
    // Counts successful connects, so that a write that failed on an earlier
    // connection does not close the one that replaced it.
    std::atomic<std::uint64_t> connectionGeneration{0};
};
