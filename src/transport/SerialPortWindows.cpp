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
// A read of queued bytes is done at once; this bounds one whose queue was
// purged under it.
constexpr DWORD kQueuedReadLimitMs = 50;

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

long long msUntil(Clock::time_point deadline) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
}

// How an overlapped call ended.
enum class Completion { Done, TimedOut, Cancelled, Failed };
struct Outcome {
    Completion completion = Completion::Failed;
    DWORD bytes = 0;
    DWORD error = 0;
};

// Waits for a started overlapped call until it is done, `cancel` is set or
// `waitMs` has passed. A call left unfinished is cancelled and waited for, so
// that its buffer and OVERLAPPED can go.
Outcome awaitCall(HANDLE port, OVERLAPPED& call, HANDLE cancel, DWORD waitMs) {
    const HANDLE events[2] = {call.hEvent, cancel};
    const DWORD woke = WaitForMultipleObjects(cancel != nullptr ? 2 : 1, events, FALSE, waitMs);
    const DWORD waitError = woke == WAIT_FAILED ? GetLastError() : 0;
    if (woke != WAIT_OBJECT_0) {
        CancelIoEx(port, &call);
    }
    DWORD bytes = 0;
    const bool finished = GetOverlappedResult(port, &call, &bytes, TRUE) != 0;
    const DWORD error = finished ? 0 : GetLastError();
    if (woke == WAIT_OBJECT_0 + 1) {
        return {Completion::Cancelled, bytes, 0};
    }
    if (woke == WAIT_TIMEOUT) {
        return {Completion::TimedOut, bytes, 0};
    }
    if (woke == WAIT_FAILED) {
        return {Completion::Failed, bytes, waitError};
    }
    return {finished ? Completion::Done : Completion::Failed, bytes, error};
}

// One overlapped call: `start(OVERLAPPED*)` begins it with `done` as its
// event; a call that does not finish at once is awaited as above.
template <typename Start>
Outcome runOverlapped(HANDLE port, HANDLE done, HANDLE cancel, Start start, DWORD waitMs) {
    if (done == nullptr) {
        return {Completion::Failed, 0, ERROR_INVALID_HANDLE};
    }
    OVERLAPPED call{};
    call.hEvent = done;
    if (start(&call)) {
        DWORD bytes = 0;
        GetOverlappedResult(port, &call, &bytes, FALSE);
        return {Completion::Done, bytes, 0};
    }
    const DWORD error = GetLastError();
    if (error != ERROR_IO_PENDING) {
        return {Completion::Failed, 0, error};
    }
    return awaitCall(port, call, cancel, waitMs);
}

// A manual-reset event, not set.
HANDLE newEvent() {
    return CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

void closeEvent(HANDLE event) {
    if (event != nullptr) {
        CloseHandle(event);
    }
}

// The bytes waiting in the input queue; false when the line fails.
bool queuedBytes(HANDLE port, DWORD& queued) {
    DWORD errors = 0;
    COMSTAT status{};
    if (!ClearCommError(port, &errors, &status)) {
        return false;
    }
    queued = status.cbInQue;
    return true;
}

} // namespace

SerialPortWindows::SerialPortWindows() : closing(newEvent()), readDone(newEvent()), writeDone(newEvent()) {
    ahead.reserve(kQueueSize);
}

SerialPortWindows::~SerialPortWindows() {
    closePort();
    for (HANDLE event : {closing, readDone, writeDone}) {
        closeEvent(event);
    }
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
    readFailing = false;
    // Exclusive, overlapped.
    HANDLE opened = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_FLAG_OVERLAPPED, nullptr);
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
    // Calls waiting on the line end at once; the handle goes once they left.
    usage.beginClose([this] {
        if (closing != nullptr) {
            SetEvent(closing);
        }
    });
    const BOOL closed = CloseHandle(toHandle(current));
    const DWORD error = GetLastError();
    if (closing != nullptr) {
        ResetEvent(closing);
    }
    {
        // Bytes of the old line are not the next line's.
        std::lock_guard<std::mutex> reading(readMutex);
        ahead.clear();
        aheadAt = 0;
    }
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
    // No read time-out in the driver: a read asks for queued bytes, or waits
    // for one byte as long as it chooses and cancels that wait itself.
    COMMTIMEOUTS timeouts{};
    timeouts.WriteTotalTimeoutConstant = kWriteTimeoutMs;
    if (!SetCommTimeouts(port, &timeouts)) {
        logger->log(failedWithNumber("SetCommTimeouts", GetLastError()), BaseLogger::ERROR, kTag);
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
    std::lock_guard<std::mutex> reading(readMutex);
    if (aheadAt == ahead.size()) {
        const UsbTypes::IoResult filled = fillAhead(toHandle(current), timeoutMs);
        if (filled.status != UsbTypes::Ok) {
            return filled;
        }
    }
    // Up to `size` of the bytes taken from the line.
    result.bytes = std::min<unsigned long long>(size, ahead.size() - aheadAt);
    std::copy_n(ahead.begin() + static_cast<std::ptrdiff_t>(aheadAt), result.bytes, data);
    aheadAt += static_cast<std::size_t>(result.bytes);
    return result;
}

UsbTypes::IoResult SerialPortWindows::fillAhead(void* port, int timeoutMs) {
    UsbTypes::IoResult result;
    ahead.clear();
    aheadAt = 0;
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
    // What is queued is taken at once, all of it. Otherwise a read of one
    // byte waits for the line, and the bytes queued behind it join it.
    for (;;) {
        DWORD queued = 0;
        if (usage.isClosing()) {
            result.status = UsbTypes::ReceiveError; // closed under the call
            return result;
        }
        if (!queuedBytes(port, queued)) {
            return failedRead("ClearCommError", GetLastError(), msUntil(deadline));
        }
        if (queued != 0) {
            return readQueued(port, queued);
        }
        const long long left = msUntil(deadline);
        if (left <= 0) {
            result.status = UsbTypes::Timeout;
            return result;
        }
        unsigned char first = 0;
        const Outcome waited = runOverlapped(
            port, readDone, closing,
            [&](OVERLAPPED* call) { return ReadFile(port, &first, 1, nullptr, call); },
            static_cast<DWORD>(left));
        if (waited.bytes != 0) {
            ahead.push_back(first);
            readFailing = false;
            // The bytes behind it come along; the first is handed out
            // whatever becomes of them.
            if (queuedBytes(port, queued) && queued != 0) {
                readQueued(port, queued);
            }
            return result;
        }
        if (waited.completion == Completion::Failed && waited.error != ERROR_OPERATION_ABORTED) {
            return failedRead("ReadFile", waited.error, msUntil(deadline));
        }
        if (waited.completion == Completion::TimedOut) {
            result.status = UsbTypes::Timeout;
            return result;
        }
    }
}

UsbTypes::IoResult SerialPortWindows::readQueued(void* port, unsigned long count) {
    UsbTypes::IoResult result;
    const std::size_t at = ahead.size();
    ahead.resize(at + count);
    const Outcome read = runOverlapped(
        port, readDone, closing,
        [&](OVERLAPPED* call) { return ReadFile(port, ahead.data() + at, count, nullptr, call); },
        kQueuedReadLimitMs);
    ahead.resize(at + (read.completion == Completion::Cancelled ? 0 : read.bytes));
    if (read.completion == Completion::Cancelled) {
        result.status = UsbTypes::ReceiveError; // closed under the call
        return result;
    }
    if (read.completion == Completion::Failed) {
        return failedRead("ReadFile", read.error, 0);
    }
    result.status = ahead.empty() ? UsbTypes::Timeout : UsbTypes::Ok;
    if (!ahead.empty()) {
        readFailing = false;
    }
    return result;
}

UsbTypes::IoResult SerialPortWindows::failedRead(const char* call, unsigned long error, long long waitMs) {
    UsbTypes::IoResult result;
    result.status = UsbTypes::ReceiveError;
    if (!readFailing.exchange(true)) {
        logger->log(failedWithNumber(call, error), BaseLogger::ERROR, kTag);
        return result;
    }
    // Reported already: the caller learns of it again only after its wait.
    if (waitMs > 0 && closing != nullptr) {
        WaitForSingleObject(closing, static_cast<DWORD>(waitMs));
    } else if (waitMs > 0) {
        Sleep(static_cast<DWORD>(waitMs));
    }
    return result;
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
    // One call for the whole buffer: no chunks, no retry. It ends when the
    // driver is done, its write time-out included, or at a close.
    std::lock_guard<std::mutex> writing(writeMutex);
    HANDLE port = toHandle(current);
    const auto requested = static_cast<DWORD>(size);
    const Outcome written = runOverlapped(
        port, writeDone, closing,
        [&](OVERLAPPED* call) { return WriteFile(port, data, requested, nullptr, call); }, INFINITE);
    if (written.completion == Completion::Cancelled) {
        result.status = UsbTypes::TransmitError; // closed under the call
        return result;
    }
    if (written.completion == Completion::Failed) {
        logWriteFailure(written.error);
        result.status = UsbTypes::TransmitError;
        return result;
    }
    // A short count (the write time-out ran out) stays Ok.
    result.bytes = written.bytes;
    if (written.bytes != size) {
        logger->log("Partial write: " + std::to_string(written.bytes) + " of " + std::to_string(size) +
                        " bytes",
                    BaseLogger::WARNING, kTag);
    }
    return result;
}

void SerialPortWindows::logWriteFailure(unsigned long error) {
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
}

std::string SerialPortWindows::currentPortName() const {
    std::lock_guard<std::mutex> lock(nameMutex);
    return portName;
}
