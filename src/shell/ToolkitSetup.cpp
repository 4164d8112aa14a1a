#include "ToolkitSetup.h"

#include "EarlyLog.h"
#include "PortableRuntimeData.h"
#include "RuntimeEnvironment.h"

#include <gtkmm.h>

namespace {

constexpr const char* kCheckedIcons[] = {"user-home-symbolic-ltr", "image-missing", "edit-find-symbolic"};

void logIconPresence(const Glib::RefPtr<Gtk::IconTheme>& theme, const char* name) {
    if (theme->has_icon(name)) {
        writeLogLine("Gtk", G_LOG_LEVEL_MESSAGE, std::string("Gtk::IconTheme has icon ") + name);
    } else {
        writeLogLine("Gtk", G_LOG_LEVEL_WARNING, std::string("Gtk::IconTheme does not have icon ") + name);
    }
}

} // namespace

void prepareIconTheme() {
    if (auto settings = Gtk::Settings::get_default()) {
        settings->property_gtk_icon_theme_name() = "hicolor";
    }
    auto theme = Gtk::IconTheme::get_default();
    if (!theme) {
        return;
    }
    theme->add_resource_path("/meridkestalutility/icons");
    if (const auto& shareDir = portableShareDir()) {
        theme->append_search_path(Platform::pathToUtf8(*shareDir / "icons"));
    }
    theme->rescan_if_needed();
    for (const char* name : kCheckedIcons) {
        logIconPresence(theme, name);
    }
}

void setDefaultWindowIcon() {
    Gtk::Window::set_default_icon_name("meridkestalutility");
    try {
        auto icon = Gdk::Pixbuf::create_from_resource(
            "/meridkestalutility/icons/hicolor/256x256/apps/meridkestalutility.png");
        if (icon) {
            Gtk::Window::set_default_icon(icon);
        }
    } catch (const Glib::Error&) {
        // Without the image the icon name set above stands.
    }
}
