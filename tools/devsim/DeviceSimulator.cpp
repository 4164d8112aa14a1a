#include "DeviceSimulator.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr std::uint8_t kDeviceInfoCommand = 1;
constexpr std::uint8_t kBroadcast = 255;
// The longest the loop sleeps when nothing is due.
constexpr auto kIdleWait = std::chrono::milliseconds(20);

} // namespace

const std::array<std::uint8_t, 12> DeviceSimulator::kEnterEspFlashingFrame = {
    0x7E, 0x08, 0x00, 0x02, 0x03, 0x02, 0x08, 0x01, 0x00, 0x00, 0x00, 0x1E};

const std::array<std::uint8_t, 30> DeviceSimulator::kDfuRequest = {
    0x3C, 0x91, 0x12, 0x01, 0x00, 0x4E, 0x7A, 0x3C, 0x91, 0x36, 0x01, 0x13, 0xD6, 0x2B, 0xA7,
    0x5E, 0x00, 0x06, 0x00, 0x00, 0x00, 0x00, 0xA7, 0x5E, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00};

DeviceSimulator::DeviceSimulator() = default;

DeviceSimulator::~DeviceSimulator() {
    stop();
}

bool DeviceSimulator::start() {
    if (worker.joinable()) {
        return true;
    }
    master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0) {
        error = std::string("posix_openpt failed: ") + std::strerror(errno);
        return false;
    }
    char name[128] = {};
    if (grantpt(master) != 0 || unlockpt(master) != 0 || ptsname_r(master, name, sizeof(name)) != 0) {
        error = std::string("pseudo-terminal setup failed: ") + std::strerror(errno);
        closeMaster();
        return false;
    }
    slave = name;
    // Raw from the start, before the program configures its end: no echo
    // and no line editing may touch a frame. On the master this sets the
    // slave's settings.
    termios settings{};
    if (tcgetattr(master, &settings) == 0) {
        cfmakeraw(&settings);
        tcsetattr(master, TCSANOW, &settings);
    }
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK | O_CLOEXEC);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    stopping = false;
    unplugRequested = false;
    unplugged = false;
    worker = std::thread([this] { loop(); });
    return true;
}

void DeviceSimulator::stop() {
    stopping = true;
    if (worker.joinable()) {
        worker.join();
    }
    closeMaster();
    if (!linkPath.empty()) {
        unlink(linkPath.c_str());
        linkPath.clear();
    }
    std::lock_guard<std::mutex> lock(mutex);
    rawHandler.reset();
    rawMode = false;
}

bool DeviceSimulator::createLink(const std::string& path) {
    if (slave.empty()) {
        return false;
    }
    unlink(path.c_str());
    if (symlink(slave.c_str(), path.c_str()) != 0) {
        error = "cannot link " + path + ": " + std::strerror(errno);
        return false;
    }
    linkPath = path;
    return true;
}

void DeviceSimulator::closeMaster() {
    if (master >= 0) {
        close(master);
        master = -1;
    }
}

// ---- Configuration and observation ----------------------------------------

void DeviceSimulator::addDevice(SimDevice device) {
    std::lock_guard<std::mutex> lock(mutex);
    devices.push_back(std::move(device));
}

void DeviceSimulator::removeDevice(std::uint8_t address) {
    std::lock_guard<std::mutex> lock(mutex);
    devices.erase(std::remove_if(devices.begin(), devices.end(),
                                 [&](const SimDevice& d) { return d.getAddress() == address; }),
                  devices.end());
}

std::optional<SimDevice> DeviceSimulator::device(std::uint8_t address) {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& d : devices) {
        if (d.getAddress() == address) {
            return d;
        }
    }
    return std::nullopt;
}

std::optional<std::vector<std::uint8_t>> DeviceSimulator::finishedImage(std::uint8_t address,
                                                                        std::uint8_t fileIndex) {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& d : devices) {
        if (d.getAddress() == address) {
            return d.finishedImage(fileIndex);
        }
    }
    return std::nullopt;
}

std::optional<SimDevice::Counters> DeviceSimulator::counters(std::uint8_t address) {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& d : devices) {
        if (d.getAddress() == address) {
            return d.getCounters();
        }
    }
    return std::nullopt;
}

void DeviceSimulator::setFaults(const Faults& newFaults) {
    std::lock_guard<std::mutex> lock(mutex);
    faults = newFaults;
}

DeviceSimulator::Faults DeviceSimulator::getFaults() {
    std::lock_guard<std::mutex> lock(mutex);
    return faults;
}

void DeviceSimulator::silenceNext(unsigned count, unsigned skip) {
    std::lock_guard<std::mutex> lock(mutex);
    faults.silenceNext = count;
    faults.silenceSkip = skip;
}

void DeviceSimulator::corruptNext(unsigned count) {
    std::lock_guard<std::mutex> lock(mutex);
    faults.wrongCrcNext = count;
}

void DeviceSimulator::failNext(int command, std::uint8_t status, unsigned count, unsigned skip) {
    std::lock_guard<std::mutex> lock(mutex);
    faults.errorCommand = command;
    faults.errorStatus = status;
    faults.errorNext = count;
    faults.errorSkip = skip;
}

void DeviceSimulator::setPacing(std::uint32_t newBaud, std::chrono::microseconds newTurnaround) {
    std::lock_guard<std::mutex> lock(mutex);
    baud = newBaud;
    turnaround = newBaud == 0 ? std::chrono::microseconds(0) : newTurnaround;
}

void DeviceSimulator::unplug() {
    unplugRequested = true;
    // Without a running loop there is nobody to do it later.
    if (!worker.joinable()) {
        closeMaster();
        unplugged = true;
    }
}

std::vector<DeviceSimulator::JournalEntry> DeviceSimulator::journal() {
    std::lock_guard<std::mutex> lock(mutex);
    return entries;
}

std::size_t DeviceSimulator::journalSize() {
    std::lock_guard<std::mutex> lock(mutex);
    return entries.size();
}

void DeviceSimulator::clearJournal() {
    std::lock_guard<std::mutex> lock(mutex);
    entries.clear();
}

bool DeviceSimulator::waitForJournal(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return journalChanged.wait_for(lock, timeout, [&] { return entries.size() >= count; });
}

void DeviceSimulator::setRawModeFactory(std::function<std::unique_ptr<RawLinkHandler>()> factory) {
    std::lock_guard<std::mutex> lock(mutex);
    rawFactory = std::move(factory);
}

void DeviceSimulator::leaveRawMode() {
    // The handler goes when the loop is done with it; it may be calling us.
    rawMode = false;
}

// ---- The loop -------------------------------------------------------------

std::chrono::nanoseconds DeviceSimulator::byteTime() const {
    if (baud == 0) {
        return std::chrono::nanoseconds(0);
    }
    return std::chrono::nanoseconds(10'000'000'000LL / baud);
}

void DeviceSimulator::loop() {
    while (!stopping) {
        if (unplugRequested && !unplugged) {
            closeMaster();
            unplugged = true;
        }
        if (unplugged) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            continue;
        }
        auto now = Clock::now();
        auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(kIdleWait);
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (!outgoing.empty()) {
                wait = std::max(std::chrono::nanoseconds(0),
                                std::min(wait, std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                   outgoing.front().release - now)));
            }
        }
        pollfd fd{master, POLLIN, 0};
        timespec timeout{static_cast<time_t>(wait.count() / 1'000'000'000),
                         static_cast<long>(wait.count() % 1'000'000'000)};
        int ready = ppoll(&fd, 1, &timeout, nullptr);
        now = Clock::now();
        if (ready > 0 && (fd.revents & POLLIN) != 0) {
            setPortOpen(true);
            readMaster(now);
        } else if (ready > 0 && (fd.revents & (POLLHUP | POLLERR)) != 0) {
            // Nobody holds the slave open: the program has closed the port.
            setPortOpen(false);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } else if (ready == 0) {
            setPortOpen(true);
        }
        if (!rawMode && rawHandler) {
            rawHandler.reset();
        }
        flushDue(Clock::now());
    }
}

void DeviceSimulator::setPortOpen(bool open) {
    if (open == portOpen) {
        return;
    }
    portOpen = open;
    if (!rawHandler) {
        return;
    }
    if (open) {
        rawHandler->onPortOpened(*this);
    } else {
        rawHandler->onPortClosed();
    }
}

void DeviceSimulator::readMaster(Clock::time_point now) {
    std::uint8_t buffer[4096];
    const ssize_t count = read(master, buffer, sizeof(buffer));
    if (count > 0) {
        received += static_cast<std::uint64_t>(count);
        onBytes(buffer, static_cast<std::size_t>(count), now);
    } else if (count < 0 && errno == EIO) {
        setPortOpen(false);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void DeviceSimulator::onBytes(const std::uint8_t* data, std::size_t size, Clock::time_point now) {
    Clock::time_point completed;
    {
        std::lock_guard<std::mutex> lock(mutex);
        // On a paced link the bytes arrive one byte time after another.
        inWireFree = std::max(now, inWireFree) + byteTime() * static_cast<long long>(size);
        completed = inWireFree;
    }
    while (size > 0) {
        if (rawMode && rawHandler) {
            rawHandler->onBytes(data, size, *this);
            return;
        }
        watchForDfu(data, size, completed);
        const std::size_t used = codec.feed(
            data, size, [&](const SimFrameCodec::Frame& frame) { return onFrame(frame, completed); });
        stray = codec.strayBytes();
        data += used;
        size -= used;
    }
}

void DeviceSimulator::watchForDfu(const std::uint8_t* data, std::size_t size, Clock::time_point now) {
    for (std::size_t i = 0; i < size; ++i) {
        dfuWindow.push_back(data[i]);
        if (dfuWindow.size() > kDfuRequest.size()) {
            dfuWindow.erase(dfuWindow.begin());
        }
        if (dfuWindow.size() == kDfuRequest.size() &&
            std::equal(dfuWindow.begin(), dfuWindow.end(), kDfuRequest.begin())) {
            std::lock_guard<std::mutex> lock(mutex);
            entries.push_back(JournalEntry{JournalEntry::DfuRequest, dfuWindow, true, now});
            journalChanged.notify_all();
            dfuWindow.clear();
        }
    }
}

bool DeviceSimulator::onFrame(const SimFrameCodec::Frame& frame, Clock::time_point completed) {
    std::function<std::unique_ptr<RawLinkHandler>()> factory;
    {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back(JournalEntry{JournalEntry::Frame, frame.raw, frame.crcOk, completed});
        journalChanged.notify_all();
        ++framesSeen;
        if (faults.unplugAfterFrames != 0 && framesSeen >= faults.unplugAfterFrames) {
            unplugRequested = true;
            return true;
        }
        factory = rawFactory;
    }
    if (!frame.crcOk) {
        // A board drops what it cannot check.
        return true;
    }
    if (factory && std::equal(frame.raw.begin(), frame.raw.end(), kEnterEspFlashingFrame.begin(),
                              kEnterEspFlashingFrame.end())) {
        rawHandler = factory();
        rawMode = rawHandler != nullptr;
        return !rawMode;
    }
    answer(std::vector<std::uint8_t>(frame.payload(), frame.payload() + frame.payloadSize()), completed);
    return true;
}

std::uint8_t DeviceSimulator::takeErrorStatus(std::uint8_t command) {
    if (faults.errorNext == 0 || (faults.errorCommand >= 0 && faults.errorCommand != command)) {
        return 0;
    }
    if (faults.errorSkip > 0) {
        --faults.errorSkip;
        return 0;
    }
    --faults.errorNext;
    return faults.errorStatus;
}

// With the lock held: whether the answer about to go out is dropped.
bool DeviceSimulator::takeSilence() {
    if (faults.silent) {
        return true;
    }
    if (faults.silenceNext == 0) {
        return false;
    }
    if (faults.silenceSkip > 0) {
        --faults.silenceSkip;
        return false;
    }
    --faults.silenceNext;
    return true;
}

void DeviceSimulator::answer(const std::vector<std::uint8_t>& request, Clock::time_point completed) {
    if (request.size() < 3) {
        return;
    }
    const std::uint8_t address = request[1];
    const std::uint8_t command = request[2];
    std::vector<std::pair<std::vector<std::uint8_t>, Clock::time_point>> replies;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto& device : devices) {
            const bool addressed =
                device.getAddress() == address || (address == kBroadcast && command == kDeviceInfoCommand);
            if (!addressed) {
                continue;
            }
            auto response = device.handle(request, takeErrorStatus(command));
            if (!response) {
                continue;
            }
            const auto due = completed + turnaround + faults.answerDelay + response->delay;
            replies.emplace_back(SimFrameCodec::encode(response->payload), due);
        }
    }
    for (auto& reply : replies) {
        schedule(std::move(reply.first), reply.second, true);
    }
}

void DeviceSimulator::send(const std::uint8_t* data, std::size_t size, std::chrono::milliseconds delay) {
    Clock::time_point due;
    {
        std::lock_guard<std::mutex> lock(mutex);
        due = std::max(Clock::now(), inWireFree) + turnaround + delay;
    }
    schedule(std::vector<std::uint8_t>(data, data + size), due, false);
}

void DeviceSimulator::schedule(std::vector<std::uint8_t> bytes, Clock::time_point due, bool applyFaults) {
    std::lock_guard<std::mutex> lock(mutex);
    if (applyFaults) {
        if (takeSilence()) {
            return;
        }
        if (faults.wrongCrc || faults.wrongCrcNext > 0) {
            if (faults.wrongCrcNext > 0) {
                --faults.wrongCrcNext;
            }
            bytes.back() ^= 0x5A;
        }
        if (faults.garbageBytes > 0) {
            std::vector<std::uint8_t> noise(faults.garbageBytes);
            for (auto& b : noise) {
                do {
                    b = static_cast<std::uint8_t>(random());
                } while (b == 0x7E);
            }
            bytes.insert(bytes.begin(), noise.begin(), noise.end());
        }
        ++answers;
    }
    // Cut the answer into the pieces it reaches the program in: per byte on
    // a paced link, per piece with gaps when writes are split, else whole.
    std::size_t piece = bytes.size();
    auto gap = std::chrono::nanoseconds(0);
    auto start = due;
    if (baud != 0) {
        piece = 1;
        gap = byteTime();
        start = std::max(due, outWireFree);
        outWireFree = start + gap * static_cast<long long>(bytes.size());
    }
    if (applyFaults && faults.splitWrites) {
        piece = std::max<std::size_t>(1, std::min(piece, faults.splitPiece));
        gap = std::max<std::chrono::nanoseconds>(gap, faults.splitGap);
    }
    std::deque<Segment> pieces;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        const std::size_t n = std::min(piece, bytes.size() - at);
        const auto index = static_cast<long long>(at / piece);
        // On a paced link a byte is there when its last bit is.
        const auto release = start + gap * (baud != 0 ? index + 1 : index);
        pieces.push_back(
            Segment{release, std::vector<std::uint8_t>(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                                                       bytes.begin() + static_cast<std::ptrdiff_t>(at + n))});
    }
    for (auto& segment : pieces) {
        auto position = std::upper_bound(outgoing.begin(), outgoing.end(), segment.release,
                                         [](Clock::time_point t, const Segment& s) { return t < s.release; });
        outgoing.insert(position, std::move(segment));
    }
}

void DeviceSimulator::flushDue(Clock::time_point now) {
    std::lock_guard<std::mutex> lock(mutex);
    while (!outgoing.empty() && outgoing.front().release <= now && master >= 0) {
        Segment& front = outgoing.front();
        const ssize_t written = write(master, front.bytes.data(), front.bytes.size());
        if (written < 0) {
            if (errno == EAGAIN || errno == EINTR) {
                return;
            }
            // The program has gone; what it did not take is lost, as on a wire.
            outgoing.clear();
            return;
        }
        sent += static_cast<std::uint64_t>(written);
        if (static_cast<std::size_t>(written) < front.bytes.size()) {
            front.bytes.erase(front.bytes.begin(), front.bytes.begin() + written);
            return;
        }
        outgoing.pop_front();
    }
}
