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

void destroyToplevels(const Glib::RefPtr<Gtk::Builder>& builder) {
    for (const char* id : {"MainWindow", "ConnectionDialog", "OpenFileDialog"}) {
        GObject* object = gtk_builder_get_object(builder->gobj(), id);
        if (object != nullptr && GTK_IS_WIDGET(object)) {
            gtk_widget_destroy(GTK_WIDGET(object));
        }
    }
    testsupport::ToolkitLoop::runFor(std::chrono::milliseconds(0));
}

} // namespace widgettest
