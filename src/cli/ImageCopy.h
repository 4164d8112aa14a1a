#pragma once

#include <cstdint>
#include <optional>
#include <string>

// The image as it was when the run began: read once, before anything is
// sent, into a private file that every board's process loads, and digested
// on the way (SHA-256). A file changed or replaced during the run changes
// nothing on any board. The copy goes when this object does.
class ImageCopy {
public:
    ImageCopy() = default;
    ~ImageCopy();
    ImageCopy(const ImageCopy&) = delete;
    ImageCopy& operator=(const ImageCopy&) = delete;

    // Copies `source`, which measured `size` bytes when it was checked; the
    // one line that says why not, when it cannot.
    std::optional<std::string> make(const std::string& source, std::uint64_t size);

    const std::string& path() const { return copyPath; }
    // Lower-case hexadecimal.
    const std::string& sha256() const { return digest; }

private:
    std::optional<std::string> copy(const std::string& source, std::uint64_t size);

    std::string folder;
    std::string copyPath;
    std::string digest;
};
