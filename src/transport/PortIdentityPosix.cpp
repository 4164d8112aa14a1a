#include "PortIdentity.h"

#include "Platform.h"

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

// Attribute files are one short line; longer text is cut, never read whole.
constexpr std::size_t kAttributeLimit = 256;

std::string attribute(const fs::path& dir, const char* name) {
    std::ifstream in(dir / name);
    std::string text;
    if (!in || !std::getline(in, text)) {
        return {};
    }
    if (text.size() > kAttributeLimit) {
        text.resize(kAttributeLimit);
    }
    while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

// The USB device a tty hangs below: the nearest folder above the tty's
// device that carries the ids, inside the sysfs root.
std::optional<fs::path> usbDevice(const fs::path& root, const std::string& tty) {
    std::error_code error;
    fs::path dir = fs::canonical(root / "class" / "tty" / tty / "device", error);
    const fs::path top = fs::canonical(root, error);
    if (dir.empty() || top.empty()) {
        return std::nullopt;
    }
    for (; dir != top && dir.has_relative_path(); dir = dir.parent_path()) {
        if (fs::exists(dir / "idVendor", error) && fs::exists(dir / "idProduct", error)) {
            return dir;
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<PortIdentity> PortIdentity::of(const std::string& port) {
    std::error_code error;
    // A /dev/serial/by-id name or another link leads to the tty's own node.
    const fs::path node = fs::canonical(port, error);
    if (error) {
        return std::nullopt;
    }
    const fs::path root = Platform::getEnv("MERID_SYSFS_ROOT").value_or("/sys");
    const auto device = usbDevice(root, node.filename().string());
    if (!device) {
        return std::nullopt;
    }
    return PortIdentity{attribute(*device, "idVendor"), attribute(*device, "idProduct"),
                        attribute(*device, "serial"), attribute(*device, "product")};
}
