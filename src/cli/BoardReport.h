#pragma once

#include "BoardRecord.h"

#include <optional>
#include <string>

// The record of every board a production line loads, in a file that
// several stations may share: one JSON object per board on a line of its
// own, or, for a file whose name ends in ".csv", one CSV row per target and
// per part of an ESP32 image under a fixed header written once, when the
// file is new. Each board's text goes in one write under the file's lock.
class BoardReport {
public:
    explicit BoardReport(std::string path);

    // The file can be opened and locked for appending (it is made when
    // missing); else the line that says why not.
    std::optional<std::string> check() const;
    // One board's record appended; the line that says why it was not.
    std::optional<std::string> append(const BoardRecord& board) const;

    // Text from a board or a chip goes as JSON strings, always valid UTF-8.
    static std::string jsonLine(const BoardRecord& board);
    // Text from a board or a chip escaped as on a terminal, every field
    // quoted where RFC 4180 wants it.
    static std::string csvRows(const BoardRecord& board);
    static const std::string& csvHeader();

private:
    std::string path;
    bool csv;
};
