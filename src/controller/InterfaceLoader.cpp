#include "InterfaceLoader.h"

#include "Platform.h"
#include "PlatformPaths.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr const char* kUiPath = "UI/UserInterface.glade";
constexpr const char* kUiResource = "/meridkestalutility/ui/UserInterface.glade";

using Platform::pathExists;
using Platform::pathFromUtf8;
using Platform::pathToUtf8;

std::vector<std::filesystem::path> gladeCandidates() {
    const std::filesystem::path uiPath = kUiPath;
    std::vector<std::filesystem::path> candidates{uiPath, std::filesystem::path("bin") / uiPath};
    const std::string executable = Platform::executablePath();
    if (!executable.empty()) {
        const std::filesystem::path base = pathFromUtf8(executable).parent_path();
        candidates.push_back(base / uiPath);
        candidates.push_back(base / "UI" / "UserInterface.glade");
        candidates.push_back(base / ".." / "UI" / "UserInterface.glade");
        candidates.push_back(base / ".." / "Sources" / "UserInterface.glade");
        candidates.push_back(base / ".." / "share" / "meridkestal" / "UI" / "UserInterface.glade");
    }
#ifdef MERID_SOURCE_ROOT
    // The source tree the program was built from, for runs out of a build
    // directory.
    const std::filesystem::path sourceRoot = pathFromUtf8(MERID_SOURCE_ROOT);
    candidates.push_back(sourceRoot / "UI" / "UserInterface.glade");
    candidates.push_back(sourceRoot / "Sources" / "UserInterface.glade");
#endif
    return candidates;
}

// The first interface file that exists, as UTF-8; kUiPath when none does.
std::string resolveGladePath() {
    for (const auto& candidate : gladeCandidates()) {
        if (pathExists(candidate)) {
            return pathToUtf8(candidate);
        }
    }
    return kUiPath;
}

std::optional<std::string> gladeOverride() {
    const auto value = Platform::getEnv("MERID_UI_GLADE");
    if (!value || value->empty() || !pathExists(pathFromUtf8(*value))) {
        return std::nullopt;
    }
    return value;
}

} // namespace

Glib::RefPtr<Gtk::Builder> InterfaceLoader::load() {
    if (const auto path = gladeOverride()) {
        g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: loading UI from file override: %s", path->c_str());
        return Gtk::Builder::create_from_file(*path);
    }
    try {
        g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: loading UI from GResource %s", kUiResource);
        return Gtk::Builder::create_from_resource(kUiResource);
    } catch (const Glib::Error&) {
        g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: loading UI from file fallback: %s",
              resolveGladePath().c_str());
        return Gtk::Builder::create_from_file(resolveGladePath());
    }
}
