#pragma once

#include "BoardResult.h"

#include <string>
#include <vector>

// The end of a run in the two forms people and scripts read: a table, and
// one JSON object per board.
class Summary {
public:
    // Device text shown escaped, led by the digest of each image when known;
    // a row per board and target, a failure's code before its text, the
    // parts of an ESP32 image beneath it.
    static std::string table(const std::vector<BoardResult>& results);
    // One target of one board; "code" is empty for a success.
    static std::string json(const BoardResult& result);
    // One board with all its targets, in the order loaded.
    static std::string boardJson(const std::vector<BoardResult>& targets);
    // `text` as a JSON string, quotes included, always valid UTF-8: a byte
    // that is no UTF-8 becomes U+FFFD.
    static std::string jsonString(const std::string& text);
};
