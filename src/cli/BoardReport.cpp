#include "BoardReport.h"

#include "DeviceText.h"
#include "Formatted.h"
#include "Platform.h"
#include "Summary.h"

#include <algorithm>
#include <cinttypes>

namespace {

using SystemClock = std::chrono::system_clock;

// ISO 8601 in UTC to the millisecond: "2026-11-26T01:02:03.456Z".
std::string utcText(SystemClock::time_point when) {
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch());
    const auto seconds = static_cast<std::time_t>(sinceEpoch.count() / 1000);
    std::tm utc{};
    if (!Platform::utcTime(seconds, utc)) {
        return {};
    }
    return formatted("%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                     utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(sinceEpoch.count() % 1000));
}

// The board's end: the first target that failed, else the last one.
const BoardResult* verdict(const BoardRecord& board) {
    const auto failed = std::find_if(board.targets.begin(), board.targets.end(),
                                     [](const BoardResult& target) { return !target.ok; });
    if (failed != board.targets.end()) {
        return &*failed;
    }
    return board.targets.empty() ? nullptr : &board.targets.back();
}

std::string jsonAdapter(const BoardRecord& board) {
    if (!board.adapter) {
        return "null";
    }
    return "{\"vendor_id\":" + Summary::jsonString(board.adapter->vendorId) +
           ",\"product_id\":" + Summary::jsonString(board.adapter->productId) +
           ",\"serial_number\":" + Summary::jsonString(board.adapter->serialNumber) + "}";
}

std::string jsonDevice(const BoardRecord& board) {
    if (board.deviceName.empty() && board.deviceVersion.empty()) {
        return "null";
    }
    return "{\"name\":" + Summary::jsonString(board.deviceName) +
           ",\"version\":" + Summary::jsonString(board.deviceVersion) + ",\"serial_number\":" +
           (board.serialNumber ? std::to_string(*board.serialNumber) : std::string("null")) + "}";
}

std::string jsonChip(const BoardRecord& board) {
    if (board.chipType.empty()) {
        return "null";
    }
    return "{\"type\":" + Summary::jsonString(board.chipType) +
           ",\"mac\":" + Summary::jsonString(board.chipMac) + "}";
}

// A CSV field: quoted when it holds a comma, a quote or a line break, its
// quotes doubled. A field that a spreadsheet would take for a formula (a
// board's name that starts with =, +, - or @) is led by an apostrophe.
std::string csvField(const std::string& field) {
    const bool formula = !field.empty() && std::string("=+-@").find(field.front()) != std::string::npos;
    const std::string text = formula ? "'" + field : field;
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        return text;
    }
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + "\"";
}

std::string csvLine(const std::vector<std::string>& fields) {
    std::string line;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        line += i == 0 ? "" : ",";
        line += csvField(fields[i]);
    }
    return line + "\r\n";
}

// The columns every row of a board shares, before its target's.
std::vector<std::string> boardColumns(const BoardRecord& board) {
    const PortIdentity adapter = board.adapter.value_or(PortIdentity{});
    return {utcText(board.start),
            utcText(board.end),
            DeviceText::forTerminal(board.host),
            MERID_VERSION,
            DeviceText::forTerminal(board.port),
            DeviceText::forTerminal(adapter.vendorId),
            DeviceText::forTerminal(adapter.productId),
            DeviceText::forTerminal(adapter.serialNumber),
            DeviceText::forTerminal(board.deviceName),
            DeviceText::forTerminal(board.deviceVersion),
            board.serialNumber ? std::to_string(*board.serialNumber) : std::string(),
            DeviceText::forTerminal(board.chipType),
            board.chipMac};
}

} // namespace

BoardReport::BoardReport(std::string path)
    : path(std::move(path)),
      csv(this->path.size() >= 4 && this->path.substr(this->path.size() - 4) == ".csv") {}

std::optional<std::string> BoardReport::check() const {
    std::string error;
    if (!Platform::appendLocked(path, {}, {}, error)) {
        return path + ": the report cannot be written (" + error + ")";
    }
    return std::nullopt;
}

std::optional<std::string> BoardReport::append(const BoardRecord& board) const {
    std::string error;
    const bool written = csv ? Platform::appendLocked(path, csvHeader(), csvRows(board), error)
                             : Platform::appendLocked(path, {}, jsonLine(board), error);
    if (!written) {
        return path + ": the record of " + DeviceText::forTerminal(board.port) + " was not written (" +
               error + ")";
    }
    return std::nullopt;
}

std::string BoardReport::jsonLine(const BoardRecord& board) {
    const BoardResult* end = verdict(board);
    std::string targets;
    for (const BoardResult& target : board.targets) {
        targets += targets.empty() ? "" : ",";
        targets += Summary::json(target);
    }
    return "{\"start\":" + Summary::jsonString(utcText(board.start)) +
           ",\"end\":" + Summary::jsonString(utcText(board.end)) +
           ",\"host\":" + Summary::jsonString(board.host) +
           ",\"version\":" + Summary::jsonString(MERID_VERSION) +
           ",\"port\":" + Summary::jsonString(board.port) + ",\"adapter\":" + jsonAdapter(board) +
           ",\"device\":" + jsonDevice(board) + ",\"chip\":" + jsonChip(board) +
           ",\"ok\":" + (end != nullptr && end->ok ? "true" : "false") +
           ",\"code\":" + Summary::jsonString(end != nullptr ? end->code : std::string()) +
           ",\"result\":" + Summary::jsonString(end != nullptr ? end->result : std::string()) +
           ",\"targets\":[" + targets + "]}\n";
}

// A row per target, and one per part for a target in parts; a part's row
// has its address, size, digest and fate, its target's result beside them.
std::string BoardReport::csvRows(const BoardRecord& board) {
    const std::vector<std::string> shared = boardColumns(board);
    std::string rows;
    for (const BoardResult& target : board.targets) {
        const std::vector<std::string> ending{target.ok ? "true" : "false", target.code,
                                              DeviceText::forTerminal(target.result)};
        std::vector<std::vector<std::string>> loaded;
        if (target.parts.empty()) {
            loaded.push_back({target.target, "", std::to_string(target.bytes), target.sha256, ""});
        }
        for (const PartResult& part : target.parts) {
            loaded.push_back({target.target, formatted("0x%" PRIx32, part.address),
                              std::to_string(part.bytes), part.sha256, part.result});
        }
        for (std::vector<std::string> row : loaded) {
            row.insert(row.begin(), shared.begin(), shared.end());
            row.insert(row.end(), ending.begin(), ending.end());
            rows += csvLine(row);
        }
    }
    return rows;
}

const std::string& BoardReport::csvHeader() {
    static const std::string header = csvLine({"start",
                                               "end",
                                               "host",
                                               "version",
                                               "port",
                                               "usb_vendor_id",
                                               "usb_product_id",
                                               "usb_serial_number",
                                               "device_name",
                                               "device_version",
                                               "device_serial_number",
                                               "chip_type",
                                               "chip_mac",
                                               "target",
                                               "address",
                                               "bytes",
                                               "sha256",
                                               "part_result",
                                               "ok",
                                               "code",
                                               "result"});
    return header;
}
