#include "SerialPortPosix.h"

#include "Platform.h"
#include "PortNames.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace {

const char* const kTag = "SerialPort: ";
constexpr int kHangupError = -1; // a pseudo error number for a line that hung up

using Clock = std::chrono::steady_clock;

// strerror_r comes in a GNU and an XSI flavour; these pick the text of either.
[[maybe_unused]] const char* errorTextOf(const char* gnuResult, const char*) {
    return gnuResult;
}
[[maybe_unused]] const char* errorTextOf(int, const char* xsiBuffer) {
    return xsiBuffer;
}

std::string errnoText(int error) {
    char buffer[256] = {};
    return errorTextOf(strerror_r(error, buffer, sizeof(buffer)), buffer);
}

// "call failed (err=N: text)": the system's shape of a failed call, with the
// POSIX call and its errno text.
std::string failedCall(const std::string& call, int error) {
    return call + " failed (err=" + std::to_string(error) + ": " + errnoText(error) + ")";
}

struct SpeedEntry {
    UsbTypes::Baudrate rate;
    speed_t constant;
};

const SpeedEntry kSpeeds[] = {
    {UsbTypes::Baud57600, B57600},   {UsbTypes::Baud115200, B115200},   {UsbTypes::Baud230400, B230400},
    {UsbTypes::Baud460800, B460800}, {UsbTypes::Baud500000, B500000},   {UsbTypes::Baud576000, B576000},
    {UsbTypes::Baud921600, B921600}, {UsbTypes::Baud1000000, B1000000}, {UsbTypes::Baud2000000, B2000000},
};

speed_t speedConstant(UsbTypes::Baudrate rate) {
    for (const auto& entry : kSpeeds) {
        if (entry.rate == rate) {
            return entry.constant;
        }
    }
    return B115200;
}

long speedValue(speed_t constant) {
    for (const auto& entry : kSpeeds) {
        if (entry.constant == constant) {
            return entry.rate;
        }
    }
    switch (constant) {
    case B9600:
        return 9600;
    case B19200:
        return 19200;
    case B38400:
        return 38400;
    default:
        return 0;
    }
}

int byteSizeOf(tcflag_t cflag) {
    switch (cflag & CSIZE) {
    case CS5:
        return 5;
    case CS6:
        return 6;
    case CS7:
        return 7;
    default:
        return 8;
    }
}

// Parity and stop bits in the codes the Windows line settings use, so that
// the settings line reads the same on every system.
int parityCodeOf(tcflag_t cflag) {
    if ((cflag & PARENB) == 0) {
        return 0;
    }
    return (cflag & PARODD) != 0 ? 1 : 2;
}

int stopBitsCodeOf(tcflag_t cflag) {
    return (cflag & CSTOPB) != 0 ? 2 : 0;
}

void makeRaw8N1(termios& tio) {
    tio.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON |
                                          IXOFF | IXANY | INPCK);
    tio.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    tio.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    // HUPCL off: closing must not drop DTR and RTS, the modem lines never move.
    tio.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | HUPCL);
#ifdef CRTSCTS
    tio.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
#endif
    tio.c_cflag |= CS8 | CLOCAL | CREAD;
    // Reads never block in the driver: poll() does the waiting.
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
}

bool isNumberedName(const std::string& name, const std::string& stem) {
    if (name.size() <= stem.size() || name.compare(0, stem.size(), stem) != 0) {
        return false;
    }
    return std::all_of(name.begin() + static_cast<std::ptrdiff_t>(stem.size()), name.end(),
                       [](char c) { return c >= '0' && c <= '9'; });
}

// The kernel makes a ttyS node for every possible legacy UART; only those
// with a driver bound and a known UART type are real ports.
bool hasSerialDriver(const std::string& name) {
    const std::filesystem::path sys = std::filesystem::path("/sys/class/tty") / name;
    std::error_code error;
    if (!std::filesystem::exists(sys / "device" / "driver", error)) {
        return false;
    }
    std::ifstream type(sys / "type");
    int uartType = -1;
    if (type >> uartType) {
        return uartType != 0;
    }
    return true;
}

bool isSerialDeviceName(const std::string& name) {
    for (const char* stem : {"ttyUSB", "ttyACM", "ttyAMA", "rfcomm"}) {
        if (isNumberedName(name, stem)) {
            return true;
        }
    }
    return isNumberedName(name, "ttyS") && hasSerialDriver(name);
}

std::vector<std::string> listDeviceNodes() {
    std::vector<std::string> ports;
    std::error_code error;
    for (std::filesystem::directory_iterator it("/dev", error), end; !error && it != end;
         it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (isSerialDeviceName(name)) {
            ports.push_back(it->path().string());
        }
    }
    return ports;
}

std::string groupNameOf(gid_t gid) {
    group entry{};
    group* found = nullptr;
    std::vector<char> buffer(4096);
    if (getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        return found->gr_name;
    }
    return "gid " + std::to_string(gid);
}

int elapsedMs(Clock::time_point start) {
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

} // namespace

SerialPortPosix::SerialPortPosix() {
    if (::pipe(wakePipe) != 0) {
        wakePipe[0] = wakePipe[1] = -1; // a close then waits for running calls to time out
        return;
    }
    for (int end : wakePipe) {
        ::fcntl(end, F_SETFL, ::fcntl(end, F_GETFL) | O_NONBLOCK);
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
    }
}

SerialPortPosix::~SerialPortPosix() {
    closePort();
    for (int end : wakePipe) {
        if (end >= 0) {
            ::close(end);
        }
    }
}

std::vector<std::string> SerialPortPosix::getAvailablePorts() {
    std::vector<std::string> ports = listDeviceNodes();
    // Virtual ports (a simulator, socat) are named by the user; only those
    // that exist now are offered.
    const std::string extra = Platform::getEnv("MERID_EXTRA_PORTS").value_or("");
    for (const auto& path : PortNames::splitPathList(extra, ':')) {
        std::error_code error;
        if (std::filesystem::exists(path, error) &&
            std::find(ports.begin(), ports.end(), path) == ports.end()) {
            ports.push_back(path);
        }
    }
    PortNames::sortDevicePorts(ports);
    return ports;
}

UsbTypes::Status SerialPortPosix::openPort(std::string& name) {
    std::lock_guard<std::recursive_mutex> lifecycle(lifecycleMutex);
    // An open port goes first, so a failing reopen loses the old line.
    closePort();
    {
        std::lock_guard<std::mutex> lock(nameMutex);
        portName = name;
    }
    lastReadError = 0;
    // Non-blocking, so that the open does not wait for a carrier; the
    // reads and writes wait in poll() and stay non-blocking.
    const int handle = ::open(name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (handle < 0) {
        logOpenFailure(name, "open", errno);
        return UsbTypes::NotAvailable;
    }
    // No sharing: flock stops another program that honours locks, TIOCEXCL
    // any later open of the terminal.
    if (::flock(handle, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        ::close(handle);
        logOpenFailure(name, "flock", error);
        return UsbTypes::NotAvailable;
    }
    if (::ioctl(handle, TIOCEXCL) != 0) {
        const int error = errno;
        ::close(handle);
        logOpenFailure(name, "ioctl(TIOCEXCL)", error);
        return UsbTypes::NotAvailable;
    }
    keepOriginalSettings(handle, name);
    // Drop whatever the driver queued before we came.
    ::tcflush(handle, TCIOFLUSH);
    fd.store(handle);
    return UsbTypes::Ok;
}

// The settings of a line before this program configured it. The reopen of
// the same line (the ESP32 switch closes and opens it) keeps the first ones.
void SerialPortPosix::keepOriginalSettings(int handle, const std::string& name) {
    if (originalFor == name) {
        return;
    }
    originalFor = ::tcgetattr(handle, &original) == 0 ? name : std::string();
}

UsbTypes::Status SerialPortPosix::closePort() {
    std::lock_guard<std::recursive_mutex> lifecycle(lifecycleMutex);
    const int handle = fd.exchange(-1);
    if (handle < 0) {
        return UsbTypes::Ok;
    }
    // Calls that hold the descriptor finish before it is released.
    usage.beginClose([this] { wakeWaiters(); });
    // The line goes back as it was found: a terminal named as the port is
    // not left raw. A line that has hung up refuses, and needs nothing.
    if (!originalFor.empty()) {
        ::tcsetattr(handle, TCSANOW, &original);
    }
    ::ioctl(handle, TIOCNXCL);
    const int result = ::close(handle);
    const int error = errno;
    drainWakeups();
    usage.endClose();
    // Linux releases the descriptor even when close reports EINTR.
    if (result != 0 && error != EINTR) {
        logger->log("Error closing port (close err=" + std::to_string(error) + ": " + errnoText(error) + ")",
                    BaseLogger::ERROR, kTag);
        return UsbTypes::CloseError;
    }
    return UsbTypes::Ok;
}

bool SerialPortPosix::isOpen() const {
    return fd.load() >= 0;
}

void SerialPortPosix::speedConfig(UsbTypes::Baudrate speed) {
    baudrate.store(UsbTypes::isSupportedBaudrate(speed) ? speed : UsbTypes::Baud115200);
    // The requested number, not the stored one.
    logger->log("Set baudrate: " + std::to_string(static_cast<std::int32_t>(speed)), BaseLogger::INFO, kTag);
}

bool SerialPortPosix::serialPortConfig(UsbTypes::Baudrate speed) {
    PortUsage::Scope scope(usage);
    const int handle = fd.load();
    if (!scope.isEntered() || handle < 0) {
        logger->log("serialPortConfig called with unopened port", BaseLogger::ERROR, kTag);
        return false;
    }
    speedConfig(speed);
    termios tio{};
    if (::tcgetattr(handle, &tio) != 0) {
        logger->log(failedCall("tcgetattr", errno), BaseLogger::ERROR, kTag);
        return false;
    }
    makeRaw8N1(tio);
    const speed_t constant = speedConstant(baudrate.load());
    if (::cfsetispeed(&tio, constant) != 0 || ::cfsetospeed(&tio, constant) != 0) {
        logger->log(failedCall("cfsetspeed", errno), BaseLogger::ERROR, kTag);
        return false;
    }
    if (::tcsetattr(handle, TCSANOW, &tio) != 0) {
        logger->log(failedCall("tcsetattr", errno), BaseLogger::ERROR, kTag);
        return false;
    }
    // DTR and RTS on for the whole connection. A pseudo-terminal has no
    // modem lines and refuses; that is no fault of the line.
    int lines = TIOCM_DTR | TIOCM_RTS;
    if (::ioctl(handle, TIOCMBIS, &lines) != 0 && errno != ENOTTY && errno != EINVAL) {
        logger->log(failedCall("ioctl(TIOCMBIS)", errno), BaseLogger::WARNING, kTag);
    }
    ::tcflush(handle, TCIOFLUSH);
    return true;
}

void SerialPortPosix::verifyPortSettings() {
    PortUsage::Scope scope(usage);
    const int handle = fd.load();
    termios tio{};
    if (!scope.isEntered() || handle < 0 || ::tcgetattr(handle, &tio) != 0) {
        return;
    }
    logger->log("Current port settings: BaudRate=" + std::to_string(speedValue(::cfgetospeed(&tio))) +
                    ", ByteSize=" + std::to_string(byteSizeOf(tio.c_cflag)) +
                    ", Parity=" + std::to_string(parityCodeOf(tio.c_cflag)) +
                    ", StopBits=" + std::to_string(stopBitsCodeOf(tio.c_cflag)),
                BaseLogger::INFO, kTag);
}

UsbTypes::IoResult SerialPortPosix::readDataImpl(unsigned char* data, unsigned long long size,
                                                 int timeoutMs) {
    UsbTypes::IoResult result;
    PortUsage::Scope scope(usage);
    const int handle = fd.load();
    if (!scope.isEntered() || handle < 0) {
        result.status = UsbTypes::ReceiveError;
        return result;
    }
    if (data == nullptr && size > 0) {
        logger->log("readDataImpl called without a buffer", BaseLogger::ERROR, kTag);
        result.status = UsbTypes::ReceiveError;
        return result;
    }
    // Wait until something is there or the time is up.
    const Wait wait = waitFor(handle, POLLIN, std::max(timeoutMs, 0));
    if (wait.outcome == WaitOutcome::TimedOut) {
        result.status = UsbTypes::Timeout;
        return result;
    }
    if (wait.outcome == WaitOutcome::Closing) {
        result.status = UsbTypes::ReceiveError; // closed under the call
        return result;
    }
    if (wait.outcome == WaitOutcome::Failed) {
        logReadFailure("poll", wait.error);
        result.status = UsbTypes::ReceiveError;
        return result;
    }
    // The queue length; a line that hung up fails here.
    int queued = 0;
    if (::ioctl(handle, FIONREAD, &queued) != 0) {
        logReadFailure("ioctl(FIONREAD)", errno);
        result.status = UsbTypes::ReceiveError;
        return result;
    }
    if (queued <= 0) {
        if ((wait.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
            logReadFailure("read", kHangupError);
            result.status = UsbTypes::ReceiveError;
        } else {
            result.status = UsbTypes::Timeout;
        }
        return result;
    }
    // Only what is queued, so the call returns at once.
    const auto count =
        static_cast<std::size_t>(std::min<unsigned long long>(static_cast<unsigned>(queued), size));
    if (count == 0) {
        result.status = UsbTypes::Timeout;
        return result;
    }
    const ssize_t got = ::read(handle, data, count);
    if (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        logReadFailure("read", errno);
        result.status = UsbTypes::ReceiveError;
        return result;
    }
    result.bytes = got > 0 ? static_cast<std::uint64_t>(got) : 0;
    result.status = result.bytes == 0 ? UsbTypes::Timeout : UsbTypes::Ok;
    if (result.bytes > 0) {
        lastReadError = 0;
    }
    return result;
}

UsbTypes::IoResult SerialPortPosix::writeDataImpl(unsigned char* data, unsigned long long size) {
    UsbTypes::IoResult result;
    PortUsage::Scope scope(usage);
    const int handle = fd.load();
    if (!scope.isEntered() || handle < 0) {
        result.status = UsbTypes::TransmitError;
        return result;
    }
    if (size == 0) {
        return result;
    }
    if (data == nullptr) {
        logger->log("writeDataImpl called without a buffer", BaseLogger::ERROR, kTag);
        result.status = UsbTypes::TransmitError;
        return result;
    }
    // Everything within the write limit, as much as the driver takes.
    const auto start = Clock::now();
    unsigned long long written = 0;
    while (written < size) {
        const auto chunk = static_cast<std::size_t>(std::min<unsigned long long>(size - written, SSIZE_MAX));
        const ssize_t n = ::write(handle, data + written, chunk);
        if (n > 0) {
            written += static_cast<unsigned long long>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            // EIO or ENXIO: the device is gone.
            logWriteFailure(errno);
            result.status = UsbTypes::TransmitError;
            result.bytes = written;
            return result;
        }
        const int left = kWriteTimeoutMs - elapsedMs(start);
        if (left <= 0) {
            break;
        }
        const Wait wait = waitFor(handle, POLLOUT, left);
        if (wait.outcome == WaitOutcome::Closing) {
            result.status = UsbTypes::TransmitError; // closed under the call
            result.bytes = written;
            return result;
        }
        if (wait.outcome == WaitOutcome::Failed) {
            logWriteFailure(wait.error);
            result.status = UsbTypes::TransmitError;
            result.bytes = written;
            return result;
        }
    }
    // A short count stays Ok; the caller compares the bytes.
    result.bytes = written;
    if (written < size) {
        logger->log("Partial write: " + std::to_string(written) + " of " + std::to_string(size) + " bytes",
                    BaseLogger::WARNING, kTag);
    }
    return result;
}

SerialPortPosix::Wait SerialPortPosix::waitFor(int handle, short events, int timeoutMs) {
    const auto start = Clock::now();
    for (;;) {
        pollfd fds[2] = {{handle, events, 0}, {wakePipe[0], POLLIN, 0}};
        const nfds_t count = wakePipe[0] >= 0 ? 2 : 1;
        const int left = std::max(timeoutMs - elapsedMs(start), 0);
        const int ready = ::poll(fds, count, left);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0) {
            return {WaitOutcome::Failed, 0, errno};
        }
        if (usage.isClosing() || (count == 2 && fds[1].revents != 0)) {
            return {WaitOutcome::Closing, 0, 0};
        }
        if (ready == 0) {
            return {WaitOutcome::TimedOut, 0, 0};
        }
        return {WaitOutcome::Ready, fds[0].revents, 0};
    }
}

void SerialPortPosix::wakeWaiters() {
    if (wakePipe[1] >= 0) {
        const char byte = 1;
        [[maybe_unused]] const ssize_t n = ::write(wakePipe[1], &byte, 1);
    }
}

void SerialPortPosix::drainWakeups() {
    if (wakePipe[0] < 0) {
        return;
    }
    char buffer[16];
    while (::read(wakePipe[0], buffer, sizeof(buffer)) > 0) {
    }
}

void SerialPortPosix::logOpenFailure(const std::string& name, const char* call, int error) {
    logger->log("Error opening port " + name + " (" + call + " err=" + std::to_string(error) + ": " +
                    errnoText(error) + ")",
                BaseLogger::ERROR, kTag);
    if (error == EACCES || error == EPERM) {
        struct stat info {};
        const std::string group =
            ::stat(name.c_str(), &info) == 0 ? " '" + groupNameOf(info.st_gid) + "'" : "";
        logger->log("No permission for " + name + ": add the user to the group" + group +
                        " that owns the device, then log in again",
                    BaseLogger::WARNING, kTag);
    } else if (error == EWOULDBLOCK || error == EBUSY) {
        logger->log("Port " + name + " is held by another program; close it there and try again",
                    BaseLogger::WARNING, kTag);
    }
}

void SerialPortPosix::logReadFailure(const std::string& call, int error) {
    if (lastReadError.exchange(error) == error) {
        return;
    }
    if (error == kHangupError) {
        logger->log(call + " failed: the line was hung up", BaseLogger::ERROR, kTag);
    } else {
        logger->log(failedCall(call, error), BaseLogger::ERROR, kTag);
    }
}

void SerialPortPosix::logWriteFailure(int error) {
    // The shape of the system's write failure: number, port, then the text.
    const std::string name = currentPortName();
    std::string text = "write failed (err=" + std::to_string(error) + ")";
    if (!name.empty()) {
        text += " on " + name;
    }
    text += ": " + errnoText(error);
    logger->log(text, BaseLogger::ERROR, kTag);
}

std::string SerialPortPosix::currentPortName() const {
    std::lock_guard<std::mutex> lock(nameMutex);
    return portName;
}
