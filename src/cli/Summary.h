#pragma once

#include "BoardResult.h"

#include <string>
#include <vector>

// The end of a run in the two forms people and scripts read: a table, and
// one JSON object per board.
class Summary {
public:
    static std::string table(const std::vector<BoardResult>& results);
    static std::string json(const BoardResult& result);
    // `text` as a JSON string, quotes included.
    static std::string jsonString(const std::string& text);
};
