#include "EspRomSimulator.h"

#include <glib.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr std::uint8_t kEnd = 0xC0;
constexpr std::uint8_t kEscape = 0xDB;

// Opcodes of the ROM loader and of the stub.
enum : std::uint8_t {
    kFlashBegin = 0x02,
    kFlashData = 0x03,
    kFlashEnd = 0x04,
    kMemBegin = 0x05,
    kMemEnd = 0x06,
    kMemData = 0x07,
    kSync = 0x08,
    kWriteReg = 0x09,
    kReadReg = 0x0A,
    kSpiSetParams = 0x0B,
    kSpiAttach = 0x0D,
    kReadFlashRom = 0x0E,
    kChangeBaudrate = 0x0F,
    kDeflateBegin = 0x10,
    kDeflateData = 0x11,
    kDeflateEnd = 0x12,
    kMd5 = 0x13,
    kSecurityInfo = 0x14,
    kEraseFlash = 0xD0,
    kEraseRegion = 0xD1,
    kReadFlashStub = 0xD2,
};

// Error codes the ROM and the stub send with a non-zero status.
enum : std::uint8_t {
    kInvalidCommand = 0x05,
    kBadDataLen = 0xC0,
    kBadDataChecksum = 0xC1,
    kBadBlocksize = 0xC2,
    kFailedSpiOp = 0xC4,
    kNotInFlashMode = 0xC6,
    kInflateError = 0xC7,
    kTooMuchData = 0xC9,
};

constexpr std::uint32_t kSectorSize = 0x1000;
constexpr std::uint32_t kSpiBusy = 1u << 18;
constexpr std::uint32_t kReadIdCommand = 0x9F;
constexpr std::uint32_t kRomReadSize = 64;
constexpr std::uint8_t kSyncBody[4] = {0x07, 0x07, 0x12, 0x20};
constexpr char kBanner[] = "rst:0x1 (POWERON_RESET),boot:0x3 (DOWNLOAD_BOOT)\r\nwaiting for download\r\n";
constexpr char kGreeting[] = "OHAI";

std::uint32_t wordAt(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
    if (offset + 4 > bytes.size()) {
        return 0;
    }
    return static_cast<std::uint32_t>(bytes[offset]) | static_cast<std::uint32_t>(bytes[offset + 1]) << 8 |
           static_cast<std::uint32_t>(bytes[offset + 2]) << 16 |
           static_cast<std::uint32_t>(bytes[offset + 3]) << 24;
}

void putWord(std::vector<std::uint8_t>& bytes, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

// Manufacturer, memory type and capacity code (log2 of the size), as the
// flash answers its read-identification command.
std::uint32_t flashIdFor(std::uint32_t flashSize) {
    std::uint32_t code = 0;
    while ((1u << code) < flashSize && code < 31) {
        ++code;
    }
    return 0xEF | (0x40u << 8) | (code << 16);
}

} // namespace

struct EspRomSimulator::Request {
    Bytes bytes;
    std::uint8_t opcode() const { return bytes[1]; }
    std::uint16_t sizeField() const { return static_cast<std::uint16_t>(bytes[2] | bytes[3] << 8); }
    std::uint32_t checksum() const { return wordAt(bytes, 4); }
    std::size_t bodySize() const { return bytes.size() - 8; }
    std::uint32_t word(std::size_t index) const { return wordAt(bytes, 8 + 4 * index); }
    const std::uint8_t* data() const { return bytes.data() + 24; }
    std::size_t dataSize() const { return bytes.size() > 24 ? bytes.size() - 24 : 0; }
};

// zlib's inflater over one compressed flash write.
struct EspRomSimulator::Inflater {
    z_stream stream{};
    bool ready = false;
    Inflater() { ready = inflateInit(&stream) == Z_OK; }
    ~Inflater() {
        if (ready) {
            inflateEnd(&stream);
        }
    }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
};

EspRomSimulator::EspRomSimulator() : EspRomSimulator(Config{}) {}

EspRomSimulator::EspRomSimulator(const Config& config)
    : settings(config), flashMemory(config.flashSize, 0xFF) {
    registers[kEfuseBase + 4] = config.macLow;
    registers[kEfuseBase + 8] = config.macHigh;
    registers[kEfuseBase + 12] = config.spiPinsWordB;
    registers[kEfuseBase + 20] = config.spiPinsWordA;
}

EspRomSimulator::~EspRomSimulator() = default;

// ---- Inspection and switches ----------------------------------------------

void EspRomSimulator::setFaults(const Faults& newFaults) {
    std::lock_guard<std::mutex> lock(mutex);
    faults = newFaults;
}

EspRomSimulator::Faults EspRomSimulator::getFaults() {
    std::lock_guard<std::mutex> lock(mutex);
    return faults;
}

EspRomSimulator::Counters EspRomSimulator::counters() {
    std::lock_guard<std::mutex> lock(mutex);
    return count;
}

std::vector<std::uint8_t> EspRomSimulator::opcodes() {
    std::lock_guard<std::mutex> lock(mutex);
    return opcodeLog;
}

std::vector<std::uint8_t> EspRomSimulator::flash(std::uint32_t offset, std::uint32_t size) {
    std::lock_guard<std::mutex> lock(mutex);
    if (offset >= flashMemory.size()) {
        return {};
    }
    const std::size_t end = std::min<std::size_t>(flashMemory.size(), std::size_t{offset} + size);
    return Bytes(flashMemory.begin() + offset, flashMemory.begin() + static_cast<std::ptrdiff_t>(end));
}

void EspRomSimulator::fillFlash(std::uint32_t offset, const std::vector<std::uint8_t>& bytes) {
    std::lock_guard<std::mutex> lock(mutex);
    for (std::size_t i = 0; i < bytes.size() && offset + i < flashMemory.size(); ++i) {
        flashMemory[offset + i] = bytes[i];
    }
}

// ---- The line ---------------------------------------------------------------

void EspRomSimulator::portClosed() {
    std::lock_guard<std::mutex> lock(mutex);
    ++count.portCloses;
    // A frame cut by the close is lost.
    frame.clear();
    inFrame = false;
    escaped = false;
    frameBroken = false;
}

void EspRomSimulator::portOpened(const Output& out) {
    std::lock_guard<std::mutex> lock(mutex);
    ++count.portOpens;
    if (settings.bootBanner && !faults.silent) {
        out(reinterpret_cast<const std::uint8_t*>(kBanner), sizeof(kBanner) - 1,
            std::chrono::milliseconds(0));
    }
}

void EspRomSimulator::feed(const std::uint8_t* data, std::size_t size, const Output& out) {
    std::lock_guard<std::mutex> lock(mutex);
    for (std::size_t i = 0; i < size; ++i) {
        onByte(data[i], out);
    }
}

// A C0 both ends a frame and may open the next one; anything outside a
// frame is noise.
void EspRomSimulator::onByte(std::uint8_t byte, const Output& out) {
    if (!inFrame) {
        if (byte == kEnd) {
            inFrame = true;
            frame.clear();
            frameBroken = false;
        }
        return;
    }
    if (escaped) {
        escaped = false;
        if (byte == 0xDC) {
            frame.push_back(kEnd);
        } else if (byte == 0xDD) {
            frame.push_back(kEscape);
        } else {
            frameBroken = true;
        }
        return;
    }
    if (byte == kEscape) {
        escaped = true;
    } else if (byte == kEnd) {
        if (!frame.empty() || frameBroken) {
            onFrame(out);
        }
        frame.clear();
        frameBroken = false;
    } else {
        frame.push_back(byte);
    }
}

void EspRomSimulator::onFrame(const Output& out) {
    ++count.frames;
    if (frameBroken) {
        ++count.badFrames;
        return;
    }
    std::vector<Bytes> replies;
    auto delay = std::chrono::milliseconds(0);
    if (streaming && frame.size() == 4) {
        streamNext(replies); // the program acknowledges a frame of the stream
    } else if (frame.size() < 8 || frame[0] != 0x00) {
        ++count.badFrames;
        return;
    } else {
        Request request{frame};
        if (isDataRequest(request.opcode()) && ++dataRequests == faults.lostRequest) {
            return;
        }
        opcodeLog.push_back(request.opcode());
        if (!count.stubRunning || !handleStub(request, replies)) {
            handle(request, replies);
        }
        if (isDataRequest(request.opcode()) && dataRequests == faults.lostAnswer) {
            return;
        }
        if (isDataRequest(request.opcode()) && dataRequests == faults.lateAnswer) {
            delay = faults.lateBy;
        }
    }
    for (const Bytes& reply : replies) {
        sendFrame(reply, out, delay);
    }
}

bool EspRomSimulator::isDataRequest(std::uint8_t opcode) const {
    return opcode == kFlashData || opcode == kDeflateData;
}

void EspRomSimulator::sendFrame(const Bytes& payload, const Output& out, std::chrono::milliseconds delay) {
    if (faults.silent) {
        return;
    }
    Bytes wire;
    for (unsigned i = 0; i < faults.garbageBytes; ++i) {
        const auto noise = static_cast<std::uint8_t>(0x21 + (i * 37) % 0x5E);
        wire.push_back(noise);
    }
    wire.push_back(kEnd);
    for (std::uint8_t b : payload) {
        if (b == kEnd) {
            wire.insert(wire.end(), {kEscape, 0xDC});
        } else if (b == kEscape) {
            wire.insert(wire.end(), {kEscape, 0xDD});
        } else {
            wire.push_back(b);
        }
    }
    wire.push_back(kEnd);
    out(wire.data(), wire.size(), delay);
}

EspRomSimulator::Bytes EspRomSimulator::answer(std::uint8_t opcode, std::uint32_t value, const Bytes& data) {
    Bytes packet{0x01, opcode};
    const auto size = static_cast<std::uint16_t>(data.size() + 2);
    packet.push_back(static_cast<std::uint8_t>(size));
    packet.push_back(static_cast<std::uint8_t>(size >> 8));
    putWord(packet, value);
    packet.insert(packet.end(), data.begin(), data.end());
    packet.push_back(0);
    packet.push_back(0);
    return packet;
}

EspRomSimulator::Bytes EspRomSimulator::refuse(std::uint8_t opcode, std::uint8_t error) {
    ++count.refusals;
    Bytes packet = answer(opcode);
    packet[packet.size() - 2] = 1;
    packet[packet.size() - 1] = error;
    return packet;
}

// ---- Commands of the ROM ----------------------------------------------------

void EspRomSimulator::handle(const Request& request, std::vector<Bytes>& replies) {
    const std::uint8_t op = request.opcode();
    const bool isData = op == kFlashData || op == kMemData || op == kDeflateData;
    if (request.bodySize() != request.sizeField() || (isData && request.bodySize() < 16)) {
        replies.push_back(refuse(op, kBadDataLen));
        return;
    }
    switch (op) {
    case kSync:
        if (request.bodySize() != 36 || std::memcmp(request.bytes.data() + 8, kSyncBody, 4) != 0) {
            return; // not a sync the ROM recognises: no answer
        }
        if (faults.silentSyncs > 0) {
            --faults.silentSyncs;
            return;
        }
        ++count.syncs;
        for (int i = 0; i < 8; ++i) {
            replies.push_back(answer(op));
        }
        return;
    case kReadReg:
        replies.push_back(answer(op, readRegister(request.word(0))));
        return;
    case kWriteReg:
        writeRegister(request.word(0), request.word(1), request.word(2));
        replies.push_back(answer(op));
        return;
    case kSecurityInfo:
        if (settings.answerSecurityInfo) {
            // Flags, key purposes and revision all 0; chip id 0 (the ESP32)
            // at byte 12, eco version 1 at byte 16.
            Bytes info(20, 0);
            info[16] = 1;
            replies.push_back(answer(op, 0, info));
        } else {
            replies.push_back(refuse(op, kInvalidCommand));
        }
        return;
    case kSpiAttach:
        spiAttached = true;
        count.spiConfig = request.word(0);
        replies.push_back(answer(op));
        return;
    case kSpiSetParams:
        count.spiParamsSize = request.word(1);
        replies.push_back(answer(op));
        return;
    case kFlashBegin:
        replies.push_back(flashBegin(request, false));
        return;
    case kFlashData:
        replies.push_back(flashData(request));
        return;
    case kFlashEnd:
    case kDeflateEnd:
        writing = false;
        deflating = false;
        inflater.reset();
        ++count.flashEnds;
        count.rebooted = count.rebooted || request.word(0) == 0;
        replies.push_back(answer(op));
        return;
    case kDeflateBegin:
        replies.push_back(flashBegin(request, true));
        return;
    case kDeflateData:
        replies.push_back(deflateData(request));
        return;
    case kMemBegin:
        replies.push_back(memBegin(request));
        return;
    case kMemData:
        replies.push_back(memData(request));
        return;
    case kMemEnd:
        memEnd(request, replies);
        return;
    case kReadFlashRom:
        replies.push_back(readRom(request));
        return;
    case kChangeBaudrate:
        count.baudRate = request.word(0);
        replies.push_back(answer(op));
        return;
    case kMd5:
        replies.push_back(md5Answer(request));
        return;
    default:
        replies.push_back(refuse(op, kInvalidCommand));
        return;
    }
}

// The stub's own commands, and its shorter SPI attach; false for the
// commands it shares with the ROM.
bool EspRomSimulator::handleStub(const Request& request, std::vector<Bytes>& replies) {
    const std::uint8_t op = request.opcode();
    switch (op) {
    case kSpiAttach:
        if (request.bodySize() != 4 && request.bodySize() != 8) {
            replies.push_back(refuse(op, kBadDataLen));
            return true;
        }
        spiAttached = true;
        count.spiConfig = request.word(0);
        replies.push_back(answer(op));
        return true;
    case kEraseFlash:
        eraseRange(0, settings.flashSize);
        replies.push_back(answer(op));
        return true;
    case kEraseRegion:
        replies.push_back(eraseRegion(request));
        return true;
    case kReadFlashStub:
        startStream(request, replies);
        return true;
    default:
        return false;
    }
}

std::uint32_t EspRomSimulator::readRegister(std::uint32_t address) {
    if (address == kMagicRegister) {
        return settings.chipMagic;
    }
    if (address == kSpiCmd && spiBusyLeft > 0) {
        --spiBusyLeft;
        return kSpiBusy;
    }
    auto found = registers.find(address);
    return found == registers.end() ? 0 : found->second;
}

void EspRomSimulator::writeRegister(std::uint32_t address, std::uint32_t value, std::uint32_t mask) {
    std::uint32_t& reg = registers[address];
    reg = (reg & ~mask) | (value & mask);
    if (address != kSpiCmd || (reg & kSpiBusy) == 0) {
        return;
    }
    // The controller runs the user command in usr2; only read-id is known.
    if ((registers[kSpiUsr2] & 0xFFFF) == kReadIdCommand) {
        registers[kSpiW0] = flashIdFor(settings.flashSize);
    }
    reg &= ~kSpiBusy;
    spiBusyLeft = faults.spiBusyPolls;
}

void EspRomSimulator::eraseRange(std::uint32_t offset, std::uint32_t size) {
    const std::uint64_t start = offset / kSectorSize * std::uint64_t{kSectorSize};
    const std::uint64_t end = std::min<std::uint64_t>(
        flashMemory.size(), (std::uint64_t{offset} + size + kSectorSize - 1) / kSectorSize * kSectorSize);
    if (start < end) {
        std::fill(flashMemory.begin() + static_cast<std::ptrdiff_t>(start),
                  flashMemory.begin() + static_cast<std::ptrdiff_t>(end), 0xFF);
    }
}

EspRomSimulator::Bytes EspRomSimulator::flashBegin(const Request& request, bool deflate) {
    const std::uint8_t op = request.opcode();
    if (request.bodySize() != 16 && request.bodySize() != 20) {
        return refuse(op, kBadDataLen);
    }
    if (!spiAttached) {
        return refuse(op, kNotInFlashMode);
    }
    const std::uint32_t eraseSize = request.word(0);
    const std::uint32_t blocks = request.word(1);
    const std::uint32_t blockSize = request.word(2);
    const std::uint32_t offset = request.word(3);
    if (std::uint64_t{offset} + eraseSize > settings.flashSize || blockSize == 0) {
        return refuse(op, kFailedSpiOp);
    }
    eraseRange(offset, eraseSize);
    ++count.flashBegins;
    writing = true;
    deflating = deflate;
    writeOffset = offset;
    writeBlockSize = blockSize;
    writeBlocks = blocks;
    writeAccepted = 0;
    nextSequence = 0;
    writeEnd = offset + (deflate ? eraseSize : 0);
    inflated = 0;
    inflater.reset();
    if (deflate) {
        inflater = std::make_unique<Inflater>();
    }
    return answer(op);
}

// Size and checksum of a data command, as every data command checks them.
bool EspRomSimulator::dataIsWhole(const Request& request, Bytes& refusal) {
    const std::uint8_t op = request.opcode();
    const std::uint32_t declared = request.word(0);
    if (declared != request.dataSize()) {
        refusal = refuse(op, kBadDataLen);
        return false;
    }
    std::uint8_t checksum = 0xEF;
    for (std::size_t i = 0; i < request.dataSize(); ++i) {
        checksum ^= request.data()[i];
    }
    if (request.checksum() != checksum) {
        refusal = refuse(op, kBadDataChecksum);
        return false;
    }
    // Blocks are taken in order: a number below the next one is a block the
    // chip already has, one above it would leave a gap.
    if (request.word(1) != nextSequence) {
        refusal = refuse(op, kBadDataLen);
        return false;
    }
    return true;
}

bool EspRomSimulator::takeDataFault() {
    if (faults.failDataBlock == 0 || dataRequests < faults.failDataBlock) {
        return false;
    }
    return dataRequests < faults.failDataBlock + faults.failDataCount;
}

EspRomSimulator::Bytes EspRomSimulator::flashData(const Request& request) {
    const std::uint8_t op = request.opcode();
    if (!writing || deflating) {
        return refuse(op, kNotInFlashMode);
    }
    if (takeDataFault()) {
        return refuse(op, faults.failError);
    }
    Bytes refusal;
    if (!dataIsWhole(request, refusal)) {
        return refusal;
    }
    // The ROM writes whole blocks only: the loader pads the last one.
    if (request.dataSize() != writeBlockSize) {
        return refuse(op, kBadBlocksize);
    }
    if (writeAccepted >= writeBlocks) {
        return refuse(op, kTooMuchData);
    }
    const std::uint64_t at = writeOffset + std::uint64_t{writeAccepted} * writeBlockSize;
    if (at + writeBlockSize > flashMemory.size()) {
        return refuse(op, kFailedSpiOp);
    }
    std::memcpy(flashMemory.data() + at, request.data(), writeBlockSize);
    ++writeAccepted;
    if (writeAccepted == writeBlocks) {
        corruptWritten(writeBlocks * writeBlockSize);
    }
    nextSequence = request.word(1) + 1;
    ++count.dataBlocks;
    return answer(op);
}

// A flash that lost a bit after the write: the byte in the middle of the
// run is inverted, so only a read-back can tell.
void EspRomSimulator::corruptWritten(std::uint32_t size) {
    if (faults.corruptFlash && size > 0) {
        flashMemory[writeOffset + size / 2] ^= 0xFF;
    }
}

EspRomSimulator::Bytes EspRomSimulator::deflateData(const Request& request) {
    const std::uint8_t op = request.opcode();
    if (!writing || !deflating || !inflater || !inflater->ready) {
        return refuse(op, kNotInFlashMode);
    }
    if (takeDataFault()) {
        return refuse(op, faults.failError);
    }
    Bytes refusal;
    if (!dataIsWhole(request, refusal)) {
        return refusal;
    }
    z_stream& z = inflater->stream;
    z.next_in = const_cast<Bytef*>(request.data());
    z.avail_in = static_cast<uInt>(request.dataSize());
    while (z.avail_in > 0) {
        // A full region still takes the end of the stream, which writes nothing.
        const std::uint32_t at = writeOffset + inflated;
        z.next_out = flashMemory.data() + at;
        z.avail_out = at < writeEnd ? writeEnd - at : 0;
        const int result = inflate(&z, Z_NO_FLUSH);
        inflated = static_cast<std::uint32_t>(z.next_out - flashMemory.data()) - writeOffset;
        if (result == Z_STREAM_END) {
            corruptWritten(inflated);
            break;
        }
        if (result == Z_BUF_ERROR && z.avail_out == 0 && z.avail_in > 0) {
            return refuse(op, kTooMuchData);
        }
        if (result != Z_OK && result != Z_BUF_ERROR) {
            return refuse(op, kInflateError);
        }
        if (result == Z_BUF_ERROR) {
            break;
        }
    }
    nextSequence = request.word(1) + 1;
    ++count.dataBlocks;
    return answer(op);
}

EspRomSimulator::Bytes EspRomSimulator::memBegin(const Request& request) {
    const std::uint8_t op = request.opcode();
    const std::uint32_t size = request.word(0);
    const std::uint32_t blockSize = request.word(2);
    const std::uint32_t offset = request.word(3);
    if (blockSize == 0 && size != 0) {
        return refuse(op, kBadBlocksize);
    }
    loading = true;
    memOffset = offset;
    memSize = size;
    memBlockSize = blockSize;
    memReceived = 0;
    nextSequence = 0;
    ramSegments.emplace_back(offset, Bytes{});
    return answer(op);
}

EspRomSimulator::Bytes EspRomSimulator::memData(const Request& request) {
    const std::uint8_t op = request.opcode();
    if (!loading || ramSegments.empty()) {
        return refuse(op, kNotInFlashMode);
    }
    Bytes refusal;
    if (!dataIsWhole(request, refusal)) {
        return refusal;
    }
    if (request.dataSize() > memBlockSize || memReceived + request.dataSize() > memSize) {
        return refuse(op, kTooMuchData);
    }
    Bytes& segment = ramSegments.back().second;
    segment.insert(segment.end(), request.data(), request.data() + request.dataSize());
    memReceived += static_cast<std::uint32_t>(request.dataSize());
    nextSequence = request.word(1) + 1;
    ++count.memBlocks;
    return answer(op);
}

// A jump into loaded RAM starts the stub, which greets; a jump anywhere else
// leaves the chip silent.
void EspRomSimulator::memEnd(const Request& request, std::vector<Bytes>& replies) {
    const std::uint8_t op = request.opcode();
    const bool stay = request.word(0) != 0;
    const std::uint32_t entry = request.word(1);
    loading = false;
    replies.push_back(answer(op));
    if (stay || entry == 0) {
        return;
    }
    for (const auto& [address, bytes] : ramSegments) {
        if (entry >= address && entry < address + bytes.size()) {
            count.stubRunning = true;
            ++count.stubStarts;
            ramSegments.clear();
            replies.push_back(Bytes(kGreeting, kGreeting + 4));
            return;
        }
    }
    count.rebooted = true;
}

EspRomSimulator::Bytes EspRomSimulator::readRom(const Request& request) {
    const std::uint32_t address = request.word(0);
    if (request.word(1) != kRomReadSize || std::uint64_t{address} + kRomReadSize > flashMemory.size()) {
        return refuse(request.opcode(), kBadDataLen);
    }
    return answer(request.opcode(), 0,
                  Bytes(flashMemory.begin() + address, flashMemory.begin() + address + 64));
}

void EspRomSimulator::md5(std::uint32_t offset, std::uint32_t size, std::uint8_t digest[16]) {
    GChecksum* checksum = g_checksum_new(G_CHECKSUM_MD5);
    g_checksum_update(checksum, flashMemory.data() + offset, size);
    gsize length = 16;
    g_checksum_get_digest(checksum, digest, &length);
    g_checksum_free(checksum);
}

// The ROM answers in hexadecimal text, the stub in 16 raw bytes.
EspRomSimulator::Bytes EspRomSimulator::md5Answer(const Request& request) {
    const std::uint32_t address = request.word(0);
    const std::uint32_t size = request.word(1);
    if (std::uint64_t{address} + size > flashMemory.size()) {
        return refuse(request.opcode(), kFailedSpiOp);
    }
    std::uint8_t digest[16];
    md5(address, size, digest);
    if (count.stubRunning) {
        return answer(request.opcode(), 0, Bytes(digest, digest + 16));
    }
    static const char kHex[] = "0123456789abcdef";
    Bytes text;
    for (std::uint8_t b : digest) {
        text.push_back(static_cast<std::uint8_t>(kHex[b >> 4]));
        text.push_back(static_cast<std::uint8_t>(kHex[b & 15]));
    }
    return answer(request.opcode(), 0, text);
}

EspRomSimulator::Bytes EspRomSimulator::eraseRegion(const Request& request) {
    const std::uint32_t offset = request.word(0);
    const std::uint32_t size = request.word(1);
    if (offset % kSectorSize != 0 || size % kSectorSize != 0) {
        return refuse(request.opcode(), kBadDataLen);
    }
    if (std::uint64_t{offset} + size > flashMemory.size()) {
        return refuse(request.opcode(), kFailedSpiOp);
    }
    eraseRange(offset, size);
    return answer(request.opcode());
}

void EspRomSimulator::startStream(const Request& request, std::vector<Bytes>& replies) {
    const std::uint32_t address = request.word(0);
    const std::uint32_t size = request.word(1);
    const std::uint32_t blockSize = request.word(2);
    if (std::uint64_t{address} + size > flashMemory.size() || blockSize == 0) {
        replies.push_back(refuse(request.opcode(), kFailedSpiOp));
        return;
    }
    replies.push_back(answer(request.opcode()));
    streaming = true;
    streamAddress = address;
    streamLeft = size;
    streamBlock = blockSize;
    streamSent = 0;
    streamed.clear();
    streamNext(replies);
}

// One frame of the stream per acknowledgement, then the digest of it all.
void EspRomSimulator::streamNext(std::vector<Bytes>& replies) {
    if (streamLeft == 0) {
        std::uint8_t digest[16];
        GChecksum* checksum = g_checksum_new(G_CHECKSUM_MD5);
        g_checksum_update(checksum, streamed.data(), streamed.size());
        gsize length = 16;
        g_checksum_get_digest(checksum, digest, &length);
        g_checksum_free(checksum);
        replies.push_back(Bytes(digest, digest + 16));
        streaming = false;
        return;
    }
    const std::uint32_t n = std::min(streamLeft, streamBlock);
    Bytes chunk(flashMemory.begin() + streamAddress, flashMemory.begin() + streamAddress + n);
    streamed.insert(streamed.end(), chunk.begin(), chunk.end());
    replies.push_back(chunk);
    streamAddress += n;
    streamLeft -= n;
    streamSent += n;
}
