#include "WidgetTestSupport.h"

#include "MeridResources.h"

namespace widgettest {

Glib::RefPtr<Gtk::Builder> loadInterface() {
    static const bool ready = [] {
        gtk_init(nullptr, nullptr);
        Gtk::Main::init_gtkmm_internals();
        g_resources_register(merid_ui_get_resource());
        g_resources_register(merid_icons_get_resource());
        g_resources_register(merid_firmware_get_resource());
        return true;
    }();
    (void)ready;
    return Gtk::Builder::create_from_resource("/meridkestalutility/ui/UserInterface.glade");
}

bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return done();
        }
        if (gtk_events_pending()) {
            gtk_main_iteration_do(FALSE);
        } else {
            g_usleep(1000);
        }
    }
    return true;
}

KeyRecorder::KeyRecorder() {
    GlobalHandlerEvents::getInstance().clearAllHandlers();
}

KeyRecorder::~KeyRecorder() {
    GlobalHandlerEvents::getInstance().clearAllHandlers();
}

void KeyRecorder::answer(HandlersFuncKeys key, GlobalHandlerEvents::HandlerEventsStatus status) {
    GlobalHandlerEvents::getInstance().addHandler(key, [this, key, status] {
        ++counts[key];
        return status;
    });
}

int KeyRecorder::count(HandlersFuncKeys key) const {
    auto found = counts.find(key);
    return found == counts.end() ? 0 : found->second;
}

void destroyToplevels(const Glib::RefPtr<Gtk::Builder>& builder) {
    for (const char* id : {"MainWindow", "ConnectionDialog", "OpenFileDialog"}) {
        GObject* object = gtk_builder_get_object(builder->gobj(), id);
        if (object != nullptr && GTK_IS_WIDGET(object)) {
            gtk_widget_destroy(GTK_WIDGET(object));
        }
    }
    while (gtk_events_pending()) {
        gtk_main_iteration_do(FALSE);
    }
}

} // namespace widgettest
