#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The images as they were when the run began: each read once, before
// anything is sent, into a private file that every board's process loads,
// and digested on the way (SHA-256). A file changed or replaced during the
// run changes nothing on any board. The copies go when this object does.
class ImageCopy {
public:
    struct Copy {
        std::string path;
        std::string sha256; // lower-case hexadecimal
        std::uint64_t bytes = 0;
    };

    ImageCopy() = default;
    ~ImageCopy();
    ImageCopy(const ImageCopy&) = delete;
    ImageCopy& operator=(const ImageCopy&) = delete;

    // Copies `source`, which measured `size` bytes when it was checked, as
    // the next copy; the one line that says why not, when it cannot.
    std::optional<std::string> add(const std::string& source, std::uint64_t size);

    const std::vector<Copy>& copies() const { return made; }

private:
    std::optional<std::string> makeFolder();
    std::optional<std::string> copy(const std::string& source, Copy& into);

    std::string folder;
    std::vector<Copy> made;
};
