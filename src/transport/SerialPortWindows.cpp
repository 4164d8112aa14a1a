#include "SerialPortWindows.h"

#include <windows.h>
// wingdi.h defines ERROR, which is a message type of the logger here.
#undef ERROR

#include <algorithm>
#include <chrono>

namespace {

const char* const kTag = "SerialPort: ";

constexpr DWORD kQueueSize = 4096;
constexpr DWORD kPurgeAll = 0xF;   // abort and clear, both directions
constexpr DWORD kPurgeClear = 0xC; // clear both directions
constexpr DWORD kFormatFlags = 0x1300;
constexpr DWORD kDefaultLanguage = 0x400;
constexpr DWORD kWriteTimeoutMs = 2000;
// The longest the driver waits in one ReadFile before the read looks for a close.
constexpr long long kReadSliceMs = 50;
// The cached read wait meaning "none set yet" or "return at once".
constexpr DWORD kUnknownReadWait = 0;
constexpr DWORD kNoReadWait = MAXDWORD;

using Clock = std::chrono::steady_clock;

HANDLE toHandle(std::intptr_t value) {
    return reinterpret_cast<HANDLE>(value);
}

std::intptr_t fromHandle(HANDLE value) {
    return reinterpret_cast<std::intptr_t>(value);
}

std::string failedWithNumber(const char* call, DWORD error) {
    return std::string(call) + " failed (err=" + std::to_string(error) + ")";
}

// The system's text for an error number, without its trailing line break.
std::string systemErrorText(DWORD error) {
    LPSTR buffer = nullptr;
    const DWORD length = FormatMessageA(kFormatFlags, nullptr, error, kDefaultLanguage,
                                        reinterpret_cast<LPSTR>(&buffer), 0, nullptr);
    std::string text;
    if (length != 0 && buffer != nullptr) {
        text.assign(buffer, length);
    }
    if (buffer != nullptr) {
        LocalFree(buffer);
    }
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) {
        text.pop_back();
    }
    return text;
}

} // namespace

SerialPortWindows::SerialPortWindows() = default;

SerialPortWindows::~SerialPortWindows() {
    closePort();
}

std::vector<std::string> SerialPortWindows::getAvailablePorts() {
    // Probing finds ports that another program holds open, too.
    std::vector<std::string> ports;
    char target[512];
    for (int n = 1; n <= 256; ++n) {
        const std::string name = "COM" + std::to_string(n);
        if (QueryDosDeviceA(name.c_str(), target, sizeof(target)) != 0) {
            ports.push_back(name);
        }
    }
    PortNames::sortComPorts(ports);
    return ports;
}

UsbTypes::Status SerialPortWindows::openPort(std::string& name) {
    std::lock_guard<std::recursive_mutex> lifecycle(lifecycleMutex);
    // An open port goes first, so a failing reopen loses the old line.
    closePort();
    const std::string path = normalizePortName(name);
    {
        std::lock_guard<std::mutex> lock(nameMutex);
        portName = name;
    }
    // Exclusive, synchronous.
    HANDLE opened =
        CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (opened == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        logger->log("Error opening port " + name + " (CreateFileA err=" + std::to_string(error) + ")",
                    BaseLogger::ERROR, kTag);
        if (error == ERROR_ACCESS_DENIED) {
            logger->log("Port " + name + " is held by another program; close it there and try again",
                        BaseLogger::WARNING, kTag);
        }
        return UsbTypes::NotAvailable;
    }
    SetupComm(opened, kQueueSize, kQueueSize);
    PurgeComm(opened, kPurgeAll);
    handle.store(fromHandle(opened));
    return UsbTypes::Ok;
}

UsbTypes::Status SerialPortWindows::closePort() {
    std::lock_guard<std::recursive_mutex> lifecycle(lifecycleMutex);
    // The handle is given up whatever CloseHandle says.
    const std::intptr_t current = handle.exchange(COM_INVALID_HANDLE);
    if (current == COM_INVALID_HANDLE) {
        return UsbTypes::Ok;
    }
    // Reads notice the close within one wait slice; a write ends within its
    // own time-out.
    usage.beginClose();
    const BOOL closed = CloseHandle(toHandle(current));
    const DWORD error = GetLastError();
    usage.endClose();
    if (!closed) {
        logger->log("Error closing port (CloseHandle err=" + std::to_string(error) + ")", BaseLogger::ERROR,
                    kTag);
        return UsbTypes::CloseError;
    }
    return UsbTypes::Ok;
}

bool SerialPortWindows::isOpen() const {
    return handle.load() != COM_INVALID_HANDLE;
}

void SerialPortWindows::speedConfig(UsbTypes::Baudrate speed) {
    baudrate.store(UsbTypes::isSupportedBaudrate(speed) ? speed : UsbTypes::Baud115200);
    // The requested number, not the stored one.
    logger->log("Set baudrate: " + std::to_string(static_cast<std::int32_t>(speed)), BaseLogger::INFO, kTag);
}

bool SerialPortWindows::serialPortConfig(UsbTypes::Baudrate speed) {
    PortUsage::Scope scope(usage);
    const std::intptr_t current = handle.load();
    if (!scope.isEntered() || current == COM_INVALID_HANDLE) {
        logger->log("serialPortConfig called with unopened port", BaseLogger::ERROR, kTag);
        return false;
    }
    HANDLE port = toHandle(current);
    speedConfig(speed);
    DCB dcb{};
    dcb.DCBlength = sizeof(DCB);
    if (!GetCommState(port, &dcb)) {
        logger->log(failedWithNumber("GetCommState", GetLastError()), BaseLogger::ERROR, kTag);
        return false;
    }
    // Only these fields; the rest stays as the driver reported it.
    dcb.BaudRate = static_cast<DWORD>(baudrate.load());
    dcb.ByteSize = 8;
    dcb.Parity = NOPARITY;
    dcb.StopBits = ONESTOPBIT;
    dcb.fBinary = 1;
    dcb.fParity = 0;
    dcb.fOutxCtsFlow = 0;
    dcb.fOutxDsrFlow = 0;
    dcb.fDtrControl = DTR_CONTROL_ENABLE;
    dcb.fOutX = 0;
    dcb.fInX = 0;
    dcb.fRtsControl = RTS_CONTROL_ENABLE;
    if (!SetCommState(port, &dcb)) {
        logger->log(failedWithNumber("SetCommState", GetLastError()), BaseLogger::ERROR, kTag);
        return false;
    }
    // Each read sets its own wait; a write may take 2 s.
    readWaitMs.store(kUnknownReadWait);
    if (!setReadWait(port, 0)) {
        return false;
    }
    PurgeComm(port, kPurgeClear);
    return true;
}

void SerialPortWindows::verifyPortSettings() {
    PortUsage::Scope scope(usage);
    const std::intptr_t current = handle.load();
    if (!scope.isEntered() || current == COM_INVALID_HANDLE) {
        return;
    }
    DCB dcb{};
    dcb.DCBlength = sizeof(DCB);
    if (!GetCommState(toHandle(current), &dcb)) {
        return;
    }
    logger->log("Current port settings: BaudRate=" + std::to_string(dcb.BaudRate) +
                    ", ByteSize=" + std::to_string(dcb.ByteSize) + ", Parity=" + std::to_string(dcb.Parity) +
                    ", StopBits=" + std::to_string(dcb.StopBits),
                BaseLogger::INFO, kTag);
}

UsbTypes::IoResult SerialPortWindows::readDataImpl(unsigned char* data, unsigned long long size,
                                                   int timeoutMs) {
    UsbTypes::IoResult result;
    PortUsage::Scope scope(usage);
    const std::intptr_t current = handle.load();
    if (!scope.isEntered() || current == COM_INVALID_HANDLE) {
        result.status = UsbTypes::ReceiveError;
        return result;
    }
    if (data == nullptr && size > 0) {
        logger->log("readDataImpl called without a buffer", BaseLogger::ERROR, kTag);
        result.status = UsbTypes::ReceiveError;
        return result;
    }
    if (size == 0) {
        result.status = UsbTypes::Timeout; // nothing to take
        return result;
    }
    HANDLE port = toHandle(current);
    timeoutMs = std::max(timeoutMs, 0);
    const auto start = Clock::now();
    // What is queued is taken at once. Otherwise the driver waits for one
    // byte, a slice at a time so that a close is noticed within one slice;
    // the bytes behind it are taken by the next read.
    for (;;) {
        if (usage.isClosing()) {
            result.status = UsbTypes::ReceiveError; // closed under the call
            return result;
        }
        DWORD errors = 0;
        COMSTAT status{};
        if (!ClearCommError(port, &errors, &status)) {
            logger->log(failedWithNumber("ClearCommError", GetLastError()), BaseLogger::ERROR, kTag);
            result.status = UsbTypes::ReceiveError;
            return result;
        }
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
        const auto left = std::max<long long>(timeoutMs - elapsed, 0);
        const bool queued = status.cbInQue != 0;
        const DWORD wanted =
            queued ? static_cast<DWORD>(std::min<unsigned long long>(status.cbInQue, size)) : 1;
        if (!queued && left == 0) {
            result.status = UsbTypes::Timeout;
            return result;
        }
        if (!setReadWait(port, queued ? 0 : static_cast<DWORD>(std::min<long long>(left, kReadSliceMs)))) {
            result.status = UsbTypes::ReceiveError;
            return result;
        }
        DWORD got = 0;
        if (!ReadFile(port, data, std::min<DWORD>(wanted, static_cast<DWORD>(size)), &got, nullptr)) {
            logger->log(failedWithNumber("ReadFile", GetLastError()), BaseLogger::ERROR, kTag);
            result.status = UsbTypes::ReceiveError;
            return result;
        }
        if (got != 0) {
            result.bytes = got;
            result.status = UsbTypes::Ok;
            return result;
        }
    }
}

bool SerialPortWindows::setReadWait(void* port, unsigned long waitMs) {
    // A wait of 0 takes what is queued and returns at once; any other ends
    // when the bytes asked for are there or the wait is over.
    const DWORD wanted = waitMs == 0 ? kNoReadWait : waitMs;
    if (readWaitMs.load() == wanted) {
        return true;
    }
    COMMTIMEOUTS timeouts{};
    timeouts.ReadIntervalTimeout = waitMs == 0 ? MAXDWORD : 0;
    timeouts.ReadTotalTimeoutMultiplier = 0;
    timeouts.ReadTotalTimeoutConstant = waitMs;
    timeouts.WriteTotalTimeoutMultiplier = 0;
    timeouts.WriteTotalTimeoutConstant = kWriteTimeoutMs;
    if (!SetCommTimeouts(static_cast<HANDLE>(port), &timeouts)) {
        logger->log(failedWithNumber("SetCommTimeouts", GetLastError()), BaseLogger::ERROR, kTag);
        return false;
    }
    readWaitMs.store(wanted);
    return true;
}

UsbTypes::IoResult SerialPortWindows::writeDataImpl(unsigned char* data, unsigned long long size) {
    UsbTypes::IoResult result;
    PortUsage::Scope scope(usage);
    const std::intptr_t current = handle.load();
    if (!scope.isEntered() || current == COM_INVALID_HANDLE) {
        result.status = UsbTypes::TransmitError;
        return result;
    }
    if (data == nullptr && size > 0) {
        logger->log("writeDataImpl called without a buffer", BaseLogger::ERROR, kTag);
        result.status = UsbTypes::TransmitError;
        return result;
    }
    // One call for the whole buffer: no chunks, no retry.
    const auto requested = static_cast<DWORD>(size);
    DWORD written = 0;
    if (WriteFile(toHandle(current), data, requested, &written, nullptr)) {
        // A short count (the write time-out ran out) stays Ok.
        result.bytes = written;
        if (written != size) {
            logger->log("Partial write: " + std::to_string(written) + " of " + std::to_string(size) +
                            " bytes",
                        BaseLogger::WARNING, kTag);
        }
        return result;
    }
    const DWORD error = GetLastError();
    const std::string text = systemErrorText(error);
    const std::string name = currentPortName();
    std::string message = "WriteFile failed (err=" + std::to_string(error) + ")";
    if (!name.empty()) {
        message += " on " + name;
    }
    if (!text.empty()) {
        message += ": " + text;
    }
    logger->log(message, BaseLogger::ERROR, kTag);
    result.status = UsbTypes::TransmitError;
    return result;
}

std::string SerialPortWindows::currentPortName() const {
    std::lock_guard<std::mutex> lock(nameMutex);
    return portName;
}
