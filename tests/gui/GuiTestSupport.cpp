#include "GuiTestSupport.h"

#include "GlobalHandlerEvents.h"
#include "MeridResources.h"

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

namespace {

// The builder names each object after its id; internal children and the
// windows of menus are searched too.
GtkWidget* findIn(GtkWidget* widget, const std::string& id) {
    if (GTK_IS_BUILDABLE(widget)) {
        const char* name = gtk_buildable_get_name(GTK_BUILDABLE(widget));
        if (name != nullptr && id == name) {
            return widget;
        }
    }
    if (!GTK_IS_CONTAINER(widget)) {
        return nullptr;
    }
    GtkWidget* found = nullptr;
    GList* children = nullptr;
    gtk_container_forall(
        GTK_CONTAINER(widget),
        [](GtkWidget* child, gpointer list) {
            *static_cast<GList**>(list) = g_list_prepend(*static_cast<GList**>(list), child);
        },
        &children);
    for (GList* child = children; child != nullptr && found == nullptr; child = child->next) {
        found = findIn(GTK_WIDGET(child->data), id);
    }
    g_list_free(children);
    return found;
}

} // namespace

Gtk::Widget* findWidget(const char* id) {
    GList* toplevels = gtk_window_list_toplevels();
    GtkWidget* found = nullptr;
    for (GList* window = toplevels; window != nullptr && found == nullptr; window = window->next) {
        found = findIn(GTK_WIDGET(window->data), id);
    }
    g_list_free(toplevels);
    return found != nullptr ? Glib::wrap(found) : nullptr;
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

std::string WindowUnderTest::text(const char* id) {
    Gtk::Widget* widget = findWidget(id);
    if (auto* label = dynamic_cast<Gtk::Label*>(widget)) {
        return label->get_label();
    }
    if (auto* button = dynamic_cast<Gtk::Button*>(widget)) {
        return button->get_label();
    }
    if (auto* item = dynamic_cast<Gtk::MenuItem*>(widget)) {
        return item->get_label();
    }
    return "<missing " + std::string(id) + ">";
}

void WindowUnderTest::answerFileDialog(const char* button, const std::string& path) {
    auto* dialog = get<Gtk::FileChooserDialog>("OpenFileDialog");
    // The dialog runs in a nested loop: it is answered from a timer set
    // before the click. The chooser loads its folder in the background and
    // may drop a name given too early: it is given again.
    unsigned ticks = 0;
    auto answer = Glib::signal_timeout().connect(
        [&] {
            if (!dialog->get_visible()) {
                return true;
            }
            if (!path.empty() && ticks++ % 10 == 0) {
                dialog->set_filename(path);
                return true;
            }
            const bool taken = !path.empty() && dialog->get_filename() == path;
            if (taken || path.empty() || ticks > 500) {
                if (!taken) {
                    dialog->unselect_all();
                }
                dialog->response(taken ? Gtk::RESPONSE_OK : Gtk::RESPONSE_CANCEL);
                return false;
            }
            return true;
        },
        20);
    get<Gtk::Button>(button)->clicked();
    answer.disconnect();
    EXPECT_FALSE(dialog->get_visible());
}

} // namespace guitest
