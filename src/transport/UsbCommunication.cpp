#include "UsbCommunication.h"

#ifdef _WIN32
#include "SerialPortWindows.h"
#else
#include "SerialPortPosix.h"
#endif

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

const char* const kTag = "UsbCommunication: ";
const char* const kNoBackend = "Serial port backend is not available on this platform/build";
const char* const kNoMethod = "Method didn't choose";
constexpr int kDefaultReadTimeoutMs = 1000;
// Far beyond any use, and small enough for the clock's nanoseconds.
constexpr unsigned long long kLongestPauseMs = 1000ull * 60 * 60 * 24 * 365 * 100;

std::unique_ptr<SerialPort> makePlatformPort() {
#ifdef _WIN32
    return std::make_unique<SerialPortWindows>();
#else
    return std::make_unique<SerialPortPosix>();
#endif
}

} // namespace

UsbCommunication::UsbCommunication() : UsbCommunication(makePlatformPort()) {}

UsbCommunication::UsbCommunication(std::unique_ptr<SerialPort> port)
    : serialPort(std::move(port)), logger(&LoggerManager::getInstance()) {}

UsbCommunication::~UsbCommunication() = default;

UsbTypes::Status UsbCommunication::connect(ConnectionMethod method) {
    std::lock_guard<std::mutex> lock(connectionMutex);
    // Accepted without a word; nothing stands behind it.
    if (method == MethodUsb) {
        connectionMethod = MethodUsb;
        return UsbTypes::Ok;
    }
    if (method != MethodCom) {
        logger->log(kNoMethod, BaseLogger::WARNING, kTag);
        return UsbTypes::ReceiveError;
    }
    if (!serialPort) {
        logger->log(kNoBackend, BaseLogger::ERROR, kTag);
        return UsbTypes::NotAvailable;
    }
    // The method stays as it was when the port cannot be opened.
    if (serialPort->openPort(portName) == UsbTypes::NotAvailable) {
        logger->log("Port " + portName + " is not available!", BaseLogger::ERROR, kTag);
        return UsbTypes::NotAvailable;
    }
    // An open port that would not take its settings still counts as
    // connected; the port has logged why.
    serialPort->serialPortConfig(baudrate);
    logger->log("Port " + portName + " is opened!", BaseLogger::INFO, kTag);
    ++connectionGeneration;
    connectionMethod = MethodCom;
    return UsbTypes::Ok;
}

UsbTypes::Status UsbCommunication::disconnect() {
    std::lock_guard<std::mutex> lock(connectionMutex);
    const ConnectionMethod method = connectionMethod;
    if (method == MethodUsb) {
        connectionMethod = MethodNone;
        return UsbTypes::Ok;
    }
    if (method != MethodCom) {
        logger->log(kNoMethod, BaseLogger::WARNING, kTag);
        return UsbTypes::ReceiveError;
    }
    if (!serialPort) {
        logger->log(kNoBackend, BaseLogger::ERROR, kTag);
        return UsbTypes::CloseError;
    }
    if (serialPort->closePort() == UsbTypes::Ok) {
        connectionMethod = MethodNone;
        return UsbTypes::Ok;
    }
    // The method stays; isConnected() asks the port, which has let go.
    logger->log("Could not disconnect to COM port", BaseLogger::ERROR, kTag);
    return UsbTypes::CloseError;
}

bool UsbCommunication::isConnected() {
    const ConnectionMethod method = connectionMethod;
    if (method == MethodCom) {
        return serialPort && serialPort->isOpen();
    }
    // MethodUsb counts as connected by decree.
    return method > 0;
}

UsbTypes::Status UsbCommunication::toDetermineDevices(ConnectionMethod method) {
    // The argument decides, not the method in force.
    if (method == MethodUsb) {
        return UsbTypes::Ok;
    }
    if (method != MethodCom) {
        logger->log(kNoMethod, BaseLogger::WARNING, kTag);
        return UsbTypes::ReceiveError;
    }
    if (!serialPort) {
        logger->log(kNoBackend, BaseLogger::ERROR, kTag);
        return UsbTypes::TransmitError;
    }
    availablePorts.clear();
    availablePorts = serialPort->getAvailablePorts();
    if (availablePorts.empty()) {
        logger->log("Device COM list is empty", BaseLogger::ERROR, kTag);
        return UsbTypes::TransmitError;
    }
    return UsbTypes::Ok;
}

UsbTypes::Status UsbCommunication::write(void* data, unsigned long long size) {
    const ConnectionMethod method = connectionMethod;
    if (method == MethodUsb) {
        return UsbTypes::NotConnected;
    }
    if (method != MethodCom) {
        logger->log(kNoMethod, BaseLogger::WARNING, kTag);
        return UsbTypes::NotConnected;
    }
    const UsbTypes::Status status = writeDataComImpl(static_cast<unsigned char*>(data), size);
    if (status != UsbTypes::Ok) {
        logger->log("Transmit Error COM", BaseLogger::ERROR, kTag);
    }
    return status;
}

UsbTypes::Status UsbCommunication::writeDataComImpl(unsigned char* data, unsigned long long size) {
    // No line here: write adds its own.
    if (!serialPort || !serialPort->isOpen()) {
        return UsbTypes::TransmitError;
    }
    const std::uint64_t generation = connectionGeneration;
    const UsbTypes::IoResult result = serialPort->writeDataImpl(data, size);
    if (result.status == UsbTypes::Ok && result.bytes == size) {
        return UsbTypes::Ok;
    }
    // A failed or short write means the device has gone (a USB serial
    // adapter pulled out); the reader then finds a closed port.
    std::lock_guard<std::mutex> lock(connectionMutex);
    logger->log("COM write failed; treating as disconnect", BaseLogger::ERROR, kTag);
    if (generation == connectionGeneration) {
        serialPort->closePort();
        connectionMethod = MethodNone;
    }
    return UsbTypes::TransmitError;
}

UsbTypes::IoResult UsbCommunication::readWithPort(unsigned char* data, unsigned long long size,
                                                  int timeoutMs) {
    if (!serialPort || !serialPort->isOpen()) {
        UsbTypes::IoResult result;
        result.status = UsbTypes::ReceiveError;
        return result;
    }
    return serialPort->readDataImpl(data, size, timeoutMs);
}

UsbTypes::IoResult UsbCommunication::read(void* data, unsigned long long size) {
    UsbTypes::IoResult result;
    result.status = UsbTypes::NotConnected;
    const ConnectionMethod method = connectionMethod;
    if (method == MethodUsb) {
        return result;
    }
    if (method != MethodCom) {
        logger->log(kNoMethod, BaseLogger::WARNING, kTag);
        return result;
    }
    result = readWithPort(static_cast<unsigned char*>(data), size, kDefaultReadTimeoutMs);
    // A time-out is no failure.
    if (result.status == UsbTypes::ReceiveError) {
        logger->log("Receive Error COM", BaseLogger::ERROR, kTag);
    }
    return result;
}

UsbTypes::IoResult UsbCommunication::read(void* data, unsigned long long size, int timeoutMs) {
    if (connectionMethod != MethodCom) {
        return read(data, size);
    }
    // Straight from the port, unlogged; a closed port answers ReceiveError.
    if (!serialPort) {
        UsbTypes::IoResult result;
        result.status = UsbTypes::ReceiveError;
        return result;
    }
    return serialPort->readDataImpl(static_cast<unsigned char*>(data), size, timeoutMs);
}

UsbTypes::IoResult UsbCommunication::readDataComImpl(unsigned char* data, unsigned long long size) {
    return readWithPort(data, size, kDefaultReadTimeoutMs);
}

bool UsbCommunication::waitForReadyRead(unsigned long long timeoutMs) {
    // A plain pause, part of the link's interface; the listener waits in its
    // read instead. sleep_for resumes after a signal with the time that is left.
    if (timeoutMs > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min(timeoutMs, kLongestPauseMs)));
    }
    return true;
}

void UsbCommunication::writeDataUsbImpl(unsigned char*, unsigned long long) {
    logger->log("libusb doesn't implemented :(... Can't write", BaseLogger::WARNING, kTag);
}

UsbTypes::IoResult UsbCommunication::readDataUsbImpl(unsigned char*, unsigned long long) {
    logger->log("libusb doesn't implemented :(... Can't read", BaseLogger::WARNING, kTag);
    UsbTypes::IoResult result;
    result.status = UsbTypes::ReceiveError;
    return result;
}
