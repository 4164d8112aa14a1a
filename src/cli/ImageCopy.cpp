#include "ImageCopy.h"

#include "Formatted.h"
#include "Platform.h"
#include "Utf8Path.h"

#include <gcrypt.h>

#include <fstream>
#include <memory>
#include <random>
#include <vector>

namespace {

constexpr std::size_t kPiece = 1 << 16;

// A folder name nobody can guess ahead of the run.
std::string privateFolderName() {
    std::random_device random;
    return formatted("merid-flash-%08x%08x", random(), random());
}

struct DigestCloser {
    void operator()(gcry_md_hd_t handle) const { gcry_md_close(handle); }
};
using Digest = std::unique_ptr<std::remove_pointer_t<gcry_md_hd_t>, DigestCloser>;

Digest openSha256() {
    gcry_check_version(nullptr);
    gcry_md_hd_t handle = nullptr;
    if (gcry_md_open(&handle, GCRY_MD_SHA256, 0) != 0) {
        return nullptr;
    }
    return Digest(handle);
}

std::string hex(const unsigned char* bytes, std::size_t size) {
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += formatted("%02x", bytes[i]);
    }
    return text;
}

} // namespace

ImageCopy::~ImageCopy() {
    std::error_code ignored;
    for (const Copy& copy : made) {
        std::filesystem::remove(pathFromUtf8(copy.path), ignored);
    }
    if (!folder.empty()) {
        std::filesystem::remove(pathFromUtf8(folder), ignored);
    }
}

// Only this user can write in the folder, so nobody can plant a link or
// swap a copy between its writing and the boards' reading.
std::optional<std::string> ImageCopy::makeFolder() {
    folder = Platform::tempDirectory() + "/" + privateFolderName();
    if (!Platform::ensurePrivateDirectory(folder)) {
        const std::string failed = folder;
        folder.clear();
        return "no private folder for the copy of the image in " + failed;
    }
    return std::nullopt;
}

std::optional<std::string> ImageCopy::add(const std::string& source, std::uint64_t size) {
    if (folder.empty()) {
        if (auto problem = makeFolder()) {
            return problem;
        }
    }
    Copy next;
    next.path = folder + "/image" + std::to_string(made.size()) + ".bin";
    next.bytes = size;
    auto problem = copy(source, next);
    made.push_back(next); // a half-written copy goes with the others
    return problem;
}

std::optional<std::string> ImageCopy::copy(const std::string& source, Copy& into) {
    const std::string& copyPath = into.path;
    const std::uint64_t size = into.bytes;
    std::ifstream in(pathFromUtf8(source), std::ios::binary);
    std::ofstream out(pathFromUtf8(copyPath), std::ios::binary | std::ios::trunc);
    if (!in.is_open()) {
        return source + ": the file cannot be read";
    }
    const Digest sha = openSha256();
    if (!out.is_open() || !sha) {
        return "the copy of the image cannot be written to " + copyPath;
    }
    std::vector<char> piece(kPiece);
    std::uint64_t total = 0;
    while (in.read(piece.data(), static_cast<std::streamsize>(piece.size())) || in.gcount() > 0) {
        const auto got = static_cast<std::size_t>(in.gcount());
        total += got;
        if (total > size) {
            break;
        }
        gcry_md_write(sha.get(), piece.data(), got);
        out.write(piece.data(), static_cast<std::streamsize>(got));
    }
    if (in.bad()) {
        return source + ": the file cannot be read";
    }
    if (total != size) {
        return source + ": the file changed while it was read (" + std::to_string(size) + " bytes, then " +
               (total > size ? "more" : std::to_string(total)) + ")";
    }
    out.close();
    if (!out) {
        return "the copy of the image cannot be written to " + copyPath;
    }
    into.sha256 = hex(gcry_md_read(sha.get(), GCRY_MD_SHA256), gcry_md_get_algo_dlen(GCRY_MD_SHA256));
    return std::nullopt;
}
