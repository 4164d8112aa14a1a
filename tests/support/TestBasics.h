#pragma once

// What needs the standard library alone, so that the program runs and the
// start-up benchmark can share it: a temporary folder, files and waiting.
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

using Bytes = std::vector<std::uint8_t>;

// A fresh directory under the temporary directory, removed with the object.
class TempDir {
public:
    TempDir() {
        std::random_device random;
        std::error_code error;
        do {
            dir = (std::filesystem::temp_directory_path() / ("merid-test-" + std::to_string(random())))
                      .string();
        } while (!std::filesystem::create_directory(dir, error));
    }
    ~TempDir() {
        std::error_code error;
        std::filesystem::remove_all(dir, error);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return dir; }

private:
    std::string dir;
};

// Writes `bytes` to `path`, replacing the file; false when it cannot.
inline bool writeFile(const std::string& path, const Bytes& bytes) {
    std::ofstream out(std::filesystem::u8path(path), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

// The whole file; empty when it cannot be read.
inline std::string readFile(const std::string& path) {
    std::ifstream in(std::filesystem::u8path(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Runs `step` (by default a two-millisecond sleep) until `done` holds or
// `timeout` has passed; what `done` answered last.
inline bool waitUntil(
    const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(20),
    const std::function<void()>& step = [] { std::this_thread::sleep_for(std::chrono::milliseconds(2)); }) {
    for (const auto deadline = std::chrono::steady_clock::now() + timeout;; step()) {
        if (done()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
    }
}

} // namespace testsupport
