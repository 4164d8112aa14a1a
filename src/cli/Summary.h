#pragma once

#include "BoardResult.h"

#include <string>
#include <vector>

// The end of a run in the two forms people and scripts read: a table, and
// one JSON object per board.
class Summary {
public:
    // Device text shown escaped, led by the image's digest when known.
    static std::string table(const std::vector<BoardResult>& results);
    static std::string json(const BoardResult& result);
    // `text` as a JSON string, quotes included, always valid UTF-8: a byte
    // that is no UTF-8 becomes U+FFFD.
    static std::string jsonString(const std::string& text);
};
