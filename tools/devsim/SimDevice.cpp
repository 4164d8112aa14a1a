#include "SimDevice.h"

#include "SimCrc8.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::uint8_t kDeviceInfo = 1;
constexpr std::uint8_t kSetField = 3;
constexpr std::uint8_t kGetField = 4;
constexpr std::uint8_t kFieldInfo = 5;
constexpr std::uint8_t kFileInfo = 7;
constexpr std::uint8_t kFileWrite = 8;
constexpr std::uint8_t kFileRead = 9;

void putU32(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

std::uint32_t getU32(const std::vector<std::uint8_t>& in, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value |= static_cast<std::uint32_t>(in[at + i]) << (8 * i);
    }
    return value;
}

} // namespace

SimDevice::SimDevice(std::uint8_t deviceAddress, std::string deviceName, std::uint8_t major,
                     std::uint8_t minor)
    : address(deviceAddress), name(std::move(deviceName)), versionMajor(major), versionMinor(minor) {}

SimDevice SimDevice::standard(std::uint8_t deviceAddress, const std::string& deviceName) {
    SimDevice device(deviceAddress, deviceName, 2, 7);
    device.addField("erase", 8);
    device.addField("reboot", 8);
    device.addField("enterBootloader", 8);
    device.addField("serialNumber", 8, 0x4D4B0042);
    device.addField("hardwareRevision", 3, 3);
    device.addField("uptime", 9, 123456789);
    return device;
}

void SimDevice::addField(const std::string& fieldName, std::uint8_t type, std::uint64_t value) {
    fields.push_back(FieldDefinition{fieldName, type, value});
}

std::optional<std::uint64_t> SimDevice::fieldValue(const std::string& fieldName) const {
    for (const auto& field : fields) {
        if (field.name == fieldName) {
            return field.value;
        }
    }
    return std::nullopt;
}

std::optional<std::vector<std::uint8_t>> SimDevice::finishedImage(std::uint8_t fileIndex) const {
    auto found = files.find(fileIndex);
    if (found == files.end()) {
        return std::nullopt;
    }
    return found->second.finished;
}

std::vector<std::uint8_t> SimDevice::openImage(std::uint8_t fileIndex) const {
    auto found = files.find(fileIndex);
    return found == files.end() ? std::vector<std::uint8_t>() : found->second.data;
}

std::size_t SimDevice::typeSize(std::uint8_t type) {
    static const std::uint8_t sizes[12] = {1, 1, 1, 2, 4, 8, 1, 2, 4, 8, 4, 8};
    return type < 12 ? sizes[type] : 0;
}

std::vector<std::uint8_t> SimDevice::header(std::uint8_t pack, std::uint8_t status) const {
    return {pack, address, status};
}

std::optional<SimDevice::Response> SimDevice::handle(const std::vector<std::uint8_t>& request,
                                                     std::uint8_t status) {
    if (request.size() < 3) {
        return std::nullopt;
    }
    const std::uint8_t pack = request[0];
    if (status != 0) {
        return Response{header(pack, status), {}};
    }
    switch (request[2]) {
    case kDeviceInfo:
        return deviceInfo(pack);
    case kSetField:
        return setField(pack, request);
    case kGetField:
        return getField(pack, request);
    case kFieldInfo:
        return fieldInfo(pack, request);
    case kFileInfo:
        return fileInfo(pack, request);
    case kFileWrite:
        return fileWrite(pack, request);
    case kFileRead:
        return Response{header(pack, 0), {}};
    default:
        return Response{header(pack, kStatusUnknownCommand), {}};
    }
}

SimDevice::Response SimDevice::deviceInfo(std::uint8_t pack) const {
    std::vector<std::uint8_t> out = header(pack, 0);
    out.push_back(versionMajor);
    out.push_back(versionMinor);
    out.push_back(0x5A); // reservedA
    out.push_back(0xA5);
    out.push_back(
        declaredCount.value_or(static_cast<std::uint8_t>(std::min<std::size_t>(fields.size(), 255))));
    putU32(out, 0xC0FFEE00u); // reservedB
    const std::size_t length = std::min<std::size_t>(name.size(), 63);
    out.push_back(static_cast<std::uint8_t>(length));
    std::uint8_t nameBytes[63] = {};
    std::memcpy(nameBytes, name.data(), length);
    out.insert(out.end(), nameBytes, nameBytes + sizeof(nameBytes));
    return Response{out, {}};
}

SimDevice::Response SimDevice::fieldInfo(std::uint8_t pack, const std::vector<std::uint8_t>& request) const {
    if (request.size() < 4 || request[3] >= fields.size()) {
        return Response{header(pack, kStatusBadIndex), {}};
    }
    const FieldDefinition& field = fields[request[3]];
    std::vector<std::uint8_t> out = header(pack, 0);
    out.push_back(field.type);
    // A name of 63 or more is sent whole; the program is the one to drop it.
    const std::size_t length = std::min<std::size_t>(field.name.size(), 255 - 5);
    out.push_back(static_cast<std::uint8_t>(length));
    out.insert(out.end(), field.name.begin(), field.name.begin() + static_cast<std::ptrdiff_t>(length));
    return Response{out, {}};
}

SimDevice::Response SimDevice::getField(std::uint8_t pack, const std::vector<std::uint8_t>& request) const {
    if (request.size() < 4 || request[3] >= fields.size()) {
        return Response{header(pack, kStatusBadIndex), {}};
    }
    const FieldDefinition& field = fields[request[3]];
    std::vector<std::uint8_t> out = header(pack, 0);
    out.push_back(field.type);
    for (std::size_t i = 0; i < typeSize(field.type); ++i) {
        out.push_back(static_cast<std::uint8_t>(field.value >> (8 * i)));
    }
    return Response{out, {}};
}

SimDevice::Response SimDevice::setField(std::uint8_t pack, const std::vector<std::uint8_t>& request) {
    if (request.size() < 5 || request[3] >= fields.size()) {
        return Response{header(pack, kStatusBadIndex), {}};
    }
    const std::size_t size = typeSize(request[4]);
    if (request.size() < 5 + size) {
        return Response{header(pack, kStatusBadRequest), {}};
    }
    FieldDefinition& field = fields[request[3]];
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
        value |= static_cast<std::uint64_t>(request[5 + i]) << (8 * i);
    }
    field.value = value;
    std::chrono::microseconds delay{0};
    if (field.name == "erase") {
        ++counters.eraseCommands;
        delay = eraseTime;
    } else if (field.name == "reboot") {
        ++counters.rebootCommands;
    } else if (field.name == "enterBootloader") {
        ++counters.bootloaderCommands;
    }
    return Response{header(pack, 0), delay};
}

SimDevice::Response SimDevice::fileWrite(std::uint8_t pack, const std::vector<std::uint8_t>& request) {
    if (request.size() < 8) {
        return Response{header(pack, kStatusBadRequest), {}};
    }
    FileSlot& slot = files[request[3]];
    const std::uint32_t offset = getU32(request, 4);
    const std::size_t chunk = request.size() - 8;
    if (static_cast<std::size_t>(offset) + chunk > kMaxFileSize) {
        return Response{header(pack, kStatusBadRequest), {}};
    }
    if (chunk > 0) {
        if (!slot.open) {
            // A lenient board: it takes the chunk all the same, and counts it.
            ++counters.writesWithoutErase;
            slot.open = true;
            slot.data.clear();
        }
        if (slot.data.size() < offset + chunk) {
            slot.data.resize(offset + chunk);
        }
        std::copy(request.begin() + 8, request.end(), slot.data.begin() + offset);
        ++counters.fileWrites;
        return Response{header(pack, 0), {}};
    }
    // An empty step erases a closed file, and finishes an open one. An open
    // file that has data and is asked at offset 0 starts over.
    if (!slot.open || (offset == 0 && !slot.data.empty())) {
        slot.open = true;
        slot.data.clear();
        ++counters.fileErases;
        return Response{header(pack, 0), eraseTime};
    }
    if (offset != slot.data.size()) {
        ++counters.finishMismatches;
        return Response{header(pack, kStatusBadRequest), {}};
    }
    slot.finished = slot.data;
    slot.open = false;
    slot.data.clear();
    ++counters.fileFinishes;
    return Response{header(pack, 0), {}};
}

SimDevice::Response SimDevice::fileInfo(std::uint8_t pack, const std::vector<std::uint8_t>& request) const {
    std::vector<std::uint8_t> out = header(pack, 0);
    out.push_back(0);
    std::vector<std::uint8_t> image;
    if (request.size() >= 4) {
        auto found = files.find(request[3]);
        if (found != files.end() && found->second.finished) {
            image = *found->second.finished;
        }
    }
    putU32(out, static_cast<std::uint32_t>(image.size()));
    putU32(out, SimCrc8::compute(image.data(), image.size()));
    return Response{out, {}};
}
