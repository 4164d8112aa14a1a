#include "GuiTestSupport.h"

#include "GlobalHandlerEvents.h"
#include "MeridResources.h"

#include <gtest/gtest.h>

namespace guitest {

Glib::RefPtr<Gtk::Application>& application() {
    static Glib::RefPtr<Gtk::Application> app = [] {
        int argc = 1;
        static char name[] = "merid_gui_tests";
        static char* args[] = {name, nullptr};
        char** argv = args;
        g_resources_register(merid_ui_get_resource());
        g_resources_register(merid_icons_get_resource());
        g_resources_register(merid_firmware_get_resource());
        return Gtk::Application::create(argc, argv, "", Gio::APPLICATION_FLAGS_NONE);
    }();
    return app;
}

bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return done();
        }
        if (Gtk::Main::events_pending()) {
            Gtk::Main::iteration(false);
        } else {
            g_usleep(1000);
        }
    }
    return true;
}

void pumpFor(std::chrono::milliseconds duration) {
    pumpUntil([] { return false; }, duration);
}

WindowUnderTest::WindowUnderTest() {
    GlobalHandlerEvents::getInstance().clearAllHandlers();
    mainWindow = MainWindow::getInstance("MeridKestalUtility", application());
}

WindowUnderTest::~WindowUnderTest() {
    delete mainWindow;
    GlobalHandlerEvents::getInstance().clearAllHandlers();
    // Let the toolkit finish what the window's end left behind.
    while (Gtk::Main::events_pending()) {
        Gtk::Main::iteration(false);
    }
}

void WindowUnderTest::reportMissing(const char* id) {
    ADD_FAILURE() << "no widget \"" << id << "\" of the expected class";
}

std::string WindowUnderTest::labelText(const char* id) {
    auto* label = get<Gtk::Label>(id);
    return label != nullptr ? std::string(label->get_label()) : std::string("<missing>");
}

std::string WindowUnderTest::buttonText(const char* id) {
    auto* button = get<Gtk::Button>(id);
    return button != nullptr ? std::string(button->get_label()) : std::string("<missing>");
}

std::string WindowUnderTest::menuItemText(const char* id) {
    auto* item = get<Gtk::MenuItem>(id);
    return item != nullptr ? std::string(item->get_label()) : std::string("<missing>");
}

} // namespace guitest
