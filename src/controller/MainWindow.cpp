#include "MainWindow.h"

#include "Platform.h"
#include "PlatformPaths.h"

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char* kUiPath = "UI/UserInterface.glade";
constexpr const char* kUiResource = "/meridkestalutility/ui/UserInterface.glade";
constexpr int kDefaultWidth = 500;
constexpr int kDefaultHeight = 550;

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

// Load errors other than a missing resource are the caller's: they end the
// start.
Glib::RefPtr<Gtk::Builder> loadInterface() {
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

} // namespace

MainWindow* MainWindow::getInstance(const Glib::ustring& title, Glib::RefPtr<Gtk::Application>& application) {
    Glib::RefPtr<Gtk::Builder> builder = loadInterface();

    g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: resolving derived widget MainWindow...");
    MainWindow* window = nullptr;
    builder->get_widget_derived("MainWindow", window);
    if (window == nullptr) {
        // The toolkit has said why; without a window there is nothing to run.
        throw std::runtime_error("MainWindow: the interface definition has no usable object \"MainWindow\"");
    }

    g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: widget resolved, initializing...");
    window->initWidgets(builder, application);
    g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: initWidgets done.");

    window->set_title(title);
    window->set_default_size(kDefaultWidth, kDefaultHeight);
    return window;
}

MainWindow::MainWindow(BaseObjectType* cobject, const Glib::RefPtr<Gtk::Builder>& builder)
    : Gtk::Window(cobject), builder(builder), logger(&LoggerManager::getInstance()) {}

MainWindow::~MainWindow() = default;

void MainWindow::initWidgets(Glib::RefPtr<Gtk::Builder>& builder,
                             Glib::RefPtr<Gtk::Application>& application) {
    this->builder = builder;
    this->application = application;
}
