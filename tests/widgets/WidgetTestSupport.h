#pragma once

#include "GlobalHandlerEvents.h"
#include "MeridResources.h"
#include "ToolkitLoop.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

namespace widgettest {

// A widget `W` built on the object `id` of a fresh copy of the bundled
// interface, its children reachable by id; no key has a handler but a test's.
template <typename W> class DerivedWidgetTest : public ::testing::Test {
protected:
    explicit DerivedWidgetTest(const char* id) {
        [[maybe_unused]] static const bool ready = [] {
            gtk_init(nullptr, nullptr);
            Gtk::Main::init_gtkmm_internals();
            g_resources_register(merid_ui_get_resource());
            g_resources_register(merid_icons_get_resource());
            g_resources_register(merid_firmware_get_resource());
            return true;
        }();
        builder = Gtk::Builder::create_from_resource("/meridkestalutility/ui/UserInterface.glade");
        GlobalHandlerEvents::getInstance().clearAllHandlers();
        W* made = nullptr;
        builder->get_widget_derived(id, made);
        widget.reset(made);
    }

    // The builder's windows go too, so that the next test starts without them.
    ~DerivedWidgetTest() override {
        widget.reset();
        for (const char* id : {"MainWindow", "ConnectionDialog", "OpenFileDialog"}) {
            gtk_widget_destroy(GTK_WIDGET(gtk_builder_get_object(builder->gobj(), id)));
        }
        GlobalHandlerEvents::getInstance().clearAllHandlers();
    }

    template <typename T> T& child(const char* id) {
        return *dynamic_cast<T*>(builder->get_object(id).get());
    }

    Glib::RefPtr<Gtk::Builder> builder;
    std::unique_ptr<W> widget;
};

} // namespace widgettest
