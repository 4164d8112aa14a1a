// The interface definition's objects: every id that the code looks up, with
// its class, and the properties that the window relies on.
#include "MeridResources.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

#include <string>
#include <utility>
#include <vector>

namespace {

Glib::RefPtr<Gtk::Builder> builder() {
    static bool initialised = [] {
        gtk_init(nullptr, nullptr);
        g_resources_register(merid_ui_get_resource());
        return true;
    }();
    (void)initialised;
    return Gtk::Builder::create_from_resource("/meridkestalutility/ui/UserInterface.glade");
}

// The toolkit's class of an object; once gtkmm has started in the process it
// names its own subclasses "gtkmm__" followed by the toolkit's name.
std::string className(const Glib::RefPtr<Gtk::Builder>& ui, const char* id) {
    GObject* object = gtk_builder_get_object(ui->gobj(), id);
    if (object == nullptr) {
        return "<missing>";
    }
    const std::string name = G_OBJECT_TYPE_NAME(object);
    const std::string wrapped = "gtkmm__";
    return name.rfind(wrapped, 0) == 0 ? name.substr(wrapped.size()) : name;
}

// The dialogs of the file still use the action area, which GTK 3 keeps
// for them but marks as deprecated.
GtkWidget* actionArea(GtkWidget* dialog) {
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    return gtk_dialog_get_action_area(GTK_DIALOG(dialog));
    G_GNUC_END_IGNORE_DEPRECATIONS
}

GtkWidget* widget(const Glib::RefPtr<Gtk::Builder>& ui, const char* id) {
    return GTK_WIDGET(gtk_builder_get_object(ui->gobj(), id));
}

} // namespace

TEST(InterfaceDefinition, EveryIdHasItsClass) {
    auto ui = builder();
    const std::vector<std::pair<const char*, const char*>> ids = {
        {"ConnectionDialog", "GtkDialog"},
        {"MainWindow", "GtkWindow"},
        {"OpenFileDialog", "GtkFileChooserDialog"},
        {"MenuBar", "GtkMenuBar"},
        {"ConnectionMenuItem", "GtkMenuItem"},
        {"ConnectImageMenuItem", "GtkImageMenuItem"},
        {"DisconnectImageMenuItem", "GtkImageMenuItem"},
        {"QuitImageMenuItem", "GtkImageMenuItem"},
        {"ListDeviceFrame", "GtkFrame"},
        {"DeviceListLable", "GtkLabel"},
        {"ListDeviceBox", "GtkBox"},
        {"SearchDeviceButton", "GtkButton"},
        {"ListDeviceListBox", "GtkListBox"},
        {"FirmwareMethodLable", "GtkLabel"},
        {"FirmwareMethodBox", "GtkBox"},
        {"FirmwareMethodComboBoxText", "GtkComboBoxText"},
        {"UploadButton", "GtkButton"},
        {"SelectFirmwareLabel", "GtkLabel"},
        {"SelectFirmwareBox", "GtkBox"},
        {"FirmwareSourceModeBox", "GtkBox"},
        {"FirmwareSourceModeSwitch", "GtkSwitch"},
        {"FirmwareSourceModeSwitchLabel", "GtkLabel"},
        {"SelectFirmwareBoxEsp32", "GtkBox"},
        {"SelectFirmwareBoxEsp32Label", "GtkLabel"},
        {"SelectFirmwareBoxEsp32Row", "GtkBox"},
        {"SelectFirmwareSearchEntryEsp32", "GtkSearchEntry"},
        {"SelectFirmwareEsp32Button", "GtkButton"},
        {"SelectFirmwareBoxStm32", "GtkBox"},
        {"SelectFirmwareBoxStm32Label", "GtkLabel"},
        {"SelectFirmwareBoxStm32Row", "GtkBox"},
        {"SelectFirmwareSearchEntryStm32", "GtkSearchEntry"},
        {"SelectFirmwareStm32Button", "GtkButton"},
        {"LoadStatusOverlay", "GtkOverlay"},
        {"LoadStatusBar", "GtkLevelBar"},
        {"LoadStatusOverlayLabel", "GtkLabel"},
        {"AppStatusbar", "GtkStatusbar"},
        {"DialogConnectButton", "GtkButton"},
        {"DialogCloseButton", "GtkButton"},
        {"ConnectionLabel", "GtkLabel"},
        {"TypeConnectionLable", "GtkLabel"},
        {"TypeConnectionComboBoxText", "GtkComboBoxText"},
        {"CurrentTypeConnectionLable", "GtkLabel"},
        {"SerialNotebook", "GtkNotebook"},
        {"ConnectionPortPage", "GtkLabel"},
        {"PortLabel", "GtkLabel"},
        {"ResetSearchPortsButton", "GtkButton"},
        {"PortsListComboTextBox", "GtkComboBoxText"},
        {"BaudrateLabel", "GtkLabel"},
        {"BaudratesListComboTextBox", "GtkComboBoxText"},
        {"ProtocolLabel", "GtkLabel"},
        {"ProtocolTypeComboBoxText", "GtkComboBoxText"},
    };
    for (const auto& [id, type] : ids) {
        EXPECT_EQ(className(ui, id), type) << id;
    }
}

TEST(InterfaceDefinition, WindowsAndDialogsAsTheCodeExpectsThem) {
    auto ui = builder();
    GtkWindow* main = GTK_WINDOW(widget(ui, "MainWindow"));
    int width = 0;
    int height = 0;
    gtk_window_get_default_size(main, &width, &height);
    EXPECT_EQ(width, 800);
    EXPECT_EQ(height, 500);
    EXPECT_FALSE(gtk_widget_get_visible(widget(ui, "ConnectionDialog")));
    EXPECT_EQ(gtk_window_get_type_hint(GTK_WINDOW(widget(ui, "ConnectionDialog"))),
              GDK_WINDOW_TYPE_HINT_DIALOG);
    EXPECT_EQ(gtk_window_get_type_hint(GTK_WINDOW(widget(ui, "OpenFileDialog"))),
              GDK_WINDOW_TYPE_HINT_DIALOG);

    // The file dialog's buttons come from code; the connection dialog's two
    // are in the file, connect first.
    GtkWidget* fileActions = actionArea(widget(ui, "OpenFileDialog"));
    GList* fileButtons = gtk_container_get_children(GTK_CONTAINER(fileActions));
    EXPECT_EQ(g_list_length(fileButtons), 0u);
    g_list_free(fileButtons);
    GtkWidget* connectActions = actionArea(widget(ui, "ConnectionDialog"));
    GList* buttons = gtk_container_get_children(GTK_CONTAINER(connectActions));
    ASSERT_EQ(g_list_length(buttons), 2u);
    EXPECT_EQ(buttons->data, widget(ui, "DialogConnectButton"));
    EXPECT_EQ(buttons->next->data, widget(ui, "DialogCloseButton"));
    g_list_free(buttons);
}

TEST(InterfaceDefinition, HiddenConnectionControlsNeverShow) {
    auto ui = builder();
    GtkWidget* dialog = widget(ui, "ConnectionDialog");
    gtk_widget_show(dialog);
    EXPECT_FALSE(gtk_widget_get_visible(gtk_widget_get_parent(widget(ui, "TypeConnectionLable"))));
    EXPECT_FALSE(gtk_widget_is_visible(widget(ui, "TypeConnectionComboBoxText")));
    EXPECT_FALSE(gtk_widget_is_visible(widget(ui, "ProtocolTypeComboBoxText")));
    EXPECT_FALSE(gtk_widget_get_visible(gtk_widget_get_parent(widget(ui, "ProtocolTypeComboBoxText"))));
    EXPECT_TRUE(gtk_widget_is_visible(widget(ui, "PortsListComboTextBox")));
    EXPECT_TRUE(gtk_widget_is_visible(widget(ui, "ResetSearchPortsButton")));
    gtk_widget_hide(dialog);
}

TEST(InterfaceDefinition, PropertiesThatMatter) {
    auto ui = builder();
    EXPECT_DOUBLE_EQ(gtk_level_bar_get_max_value(GTK_LEVEL_BAR(widget(ui, "LoadStatusBar"))), 100.0);
    EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(widget(ui, "LoadStatusOverlayLabel"))), "0%");
    EXPECT_EQ(gtk_widget_get_parent(widget(ui, "LoadStatusOverlayLabel")), widget(ui, "LoadStatusOverlay"));
    EXPECT_FALSE(gtk_switch_get_active(GTK_SWITCH(widget(ui, "FirmwareSourceModeSwitch"))));
    EXPECT_EQ(gtk_box_get_spacing(GTK_BOX(widget(ui, "FirmwareMethodBox"))), 8);
    EXPECT_EQ(gtk_box_get_spacing(GTK_BOX(widget(ui, "SelectFirmwareBox"))), 8);
    EXPECT_EQ(gtk_box_get_spacing(GTK_BOX(widget(ui, "SelectFirmwareBoxEsp32"))), 1);
    EXPECT_EQ(gtk_box_get_spacing(GTK_BOX(widget(ui, "SelectFirmwareBoxStm32"))), 0);
    EXPECT_EQ(gtk_orientable_get_orientation(GTK_ORIENTABLE(widget(ui, "AppStatusbar"))),
              GTK_ORIENTATION_VERTICAL);
    EXPECT_EQ(gtk_frame_get_label_widget(GTK_FRAME(widget(ui, "ListDeviceFrame"))),
              widget(ui, "DeviceListLable"));
    EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(widget(ui, "DeviceListLable"))), "Список устройств");
    EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(widget(ui, "FirmwareMethodLable"))), "Устройство для прошивки");
    EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(widget(ui, "SelectFirmwareLabel"))), "Загрузка прошивки");
    EXPECT_EQ(gtk_frame_get_shadow_type(GTK_FRAME(widget(ui, "ListDeviceFrame"))), GTK_SHADOW_ETCHED_OUT);
    EXPECT_FALSE(gtk_notebook_get_show_border(GTK_NOTEBOOK(widget(ui, "SerialNotebook"))));
    EXPECT_EQ(
        gtk_notebook_get_tab_label(GTK_NOTEBOOK(widget(ui, "SerialNotebook")),
                                   gtk_notebook_get_nth_page(GTK_NOTEBOOK(widget(ui, "SerialNotebook")), 0)),
        widget(ui, "ConnectionPortPage"));
    EXPECT_EQ(gtk_button_get_image_position(GTK_BUTTON(widget(ui, "ResetSearchPortsButton"))), GTK_POS_RIGHT);
    for (const char* id : {"SelectFirmwareSearchEntryEsp32", "SelectFirmwareSearchEntryStm32"}) {
        GtkEntry* entry = GTK_ENTRY(widget(ui, id));
        EXPECT_STREQ(gtk_entry_get_icon_name(entry, GTK_ENTRY_ICON_PRIMARY), "edit-find-symbolic") << id;
        EXPECT_FALSE(gtk_entry_get_icon_activatable(entry, GTK_ENTRY_ICON_PRIMARY)) << id;
        EXPECT_FALSE(gtk_entry_get_icon_sensitive(entry, GTK_ENTRY_ICON_PRIMARY)) << id;
    }
    int height = 0;
    gtk_widget_get_size_request(widget(ui, "SearchDeviceButton"), nullptr, &height);
    EXPECT_EQ(height, 34);
    gtk_widget_get_size_request(widget(ui, "ListDeviceListBox"), nullptr, &height);
    EXPECT_EQ(height, 58);
    gtk_widget_get_size_request(widget(ui, "LoadStatusBar"), nullptr, &height);
    EXPECT_EQ(height, 28);
}
