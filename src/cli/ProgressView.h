#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

// The progress of every board. On a terminal one line per board, redrawn in
// place: port, percent, bytes, KiB/s and the time left. Elsewhere a line per
// board at each tenth of the way.
class ProgressView {
public:
    ProgressView(std::FILE* out, bool terminal, const std::vector<std::string>& ports,
                 std::uint64_t imageBytes);

    void update(std::size_t board, unsigned percent, std::uint64_t bytes);
    // Redraws the terminal lines when anything changed since the last draw.
    void draw();

    static std::string line(const std::string& port, unsigned percent, std::uint64_t bytes,
                            std::uint64_t total, double seconds);

private:
    struct Board {
        std::string port;
        unsigned percent = 0;
        std::uint64_t bytes = 0;
        unsigned reportedTenth = 0;
        double seconds = 0;
    };

    std::FILE* out;
    bool terminal;
    std::uint64_t total;
    std::vector<Board> boards;
    std::chrono::steady_clock::time_point start;
    bool changed = true;
    bool drawn = false;
    std::size_t width = 0;
};
