#include "GuiTestSupport.h"

#include "GlobalHandlerEvents.h"
#include "MeridResources.h"

namespace guitest {

Glib::RefPtr<Gtk::Application>& application() {
    static Glib::RefPtr<Gtk::Application> app = [] {
        int argc = 0;
        char** argv = nullptr;
        g_resources_register(merid_ui_get_resource());
        g_resources_register(merid_icons_get_resource());
        g_resources_register(merid_firmware_get_resource());
        return Gtk::Application::create(argc, argv, "", Gio::APPLICATION_FLAGS_NONE);
    }();
    return app;
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

// Labels, buttons and menu items all keep their text in "label".
std::string WindowUnderTest::text(const char* id) {
    Glib::ustring label;
    get<Gtk::Widget>(id)->get_property("label", label);
    return label;
}

void WindowUnderTest::answerFileDialog(const char* button, const std::string& path) {
    auto* dialog = get<Gtk::FileChooserDialog>("OpenFileDialog");
    // The dialog runs in a nested loop: it is answered from a timer set
    // before the click. The chooser loads its folder in the background and
    // may drop a name given too early: it is given again until it holds.
    int tries = 0;
    auto answer = Glib::signal_timeout().connect(
        [&] {
            const bool taken = !path.empty() && dialog->get_filename() == path;
            if (dialog->get_visible() && (taken || path.empty() || ++tries > 50)) {
                if (!taken) {
                    dialog->unselect_all();
                }
                dialog->response(taken ? Gtk::RESPONSE_OK : Gtk::RESPONSE_CANCEL);
            } else if (dialog->get_visible()) {
                dialog->set_filename(path);
            }
            return true;
        },
        200);
    get<Gtk::Button>(button)->clicked();
    answer.disconnect();
    EXPECT_FALSE(dialog->get_visible());
}

} // namespace guitest
