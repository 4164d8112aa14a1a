// The window as the program builds it, driven the way a user drives it: the
// texts in both languages, the connection dialog, the firmware choice and
// the file dialog.
#include "GlobalHandlerEvents.h"
#include "GuiTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

#include <fstream>
#include <string>
#include <vector>

using guitest::WindowUnderTest;
using testsupport::CapturingLogger;
using testsupport::TempDir;
using testsupport::ToolkitLoop;

namespace {

struct Text {
    const char* id;
    const char* russian;
    const char* english;
};

// Every text the widgets set, by the id of the label, button or menu item
// that shows it.
const Text kTexts[] = {
    {"ConnectionLabel", "Подключение", "Connection"},
    {"ProtocolLabel", "Протокол", "Protocol"},
    {"TypeConnectionLable", "Тип", "Type"},
    {"CurrentTypeConnectionLable", "Последовательный", "Serial"},
    {"PortLabel", "Порт", "Port"},
    {"BaudrateLabel", "Скорость в бодах", "Baudrate"},
    {"ConnectionPortPage", "COM", "COM"},
    {"DeviceListLable", "Список устройств", "Device list"},
    {"FirmwareMethodLable", "Устройство для прошивки", "Device for flashing"},
    {"FirmwareSourceModeSwitchLabel", "Использовать предустановленную прошивку", "Use preinstalled firmware"},
    {"SelectFirmwareBoxEsp32Label", "Путь для прошивки ESP32", "Firmware path for ESP32"},
    {"SelectFirmwareBoxStm32Label", "Путь для прошивки STM32", "Firmware path for STM32"},
    {"SelectFirmwareLabel", "Загрузка прошивки", "Upload firmware"},
    {"DialogConnectButton", "Подключить", "Connect"},
    {"DialogCloseButton", "Закрыть", "Close"},
    {"SearchDeviceButton", "Поиск устройств", "Search devices"},
    {"UploadButton", "Загрузить", "Upload"},
    {"SelectFirmwareEsp32Button", "Поиск", "Search"},
    {"SelectFirmwareStm32Button", "Поиск", "Search"},
    {"ConnectionMenuItem", "Подключение", "Connection"},
    {"ConnectImageMenuItem", "Подключиться", "Connect"},
    {"DisconnectImageMenuItem", "Отключиться", "Disconnect"},
    {"QuitImageMenuItem", "Выход", "Quit"},
};

std::vector<std::string> comboEntries(Gtk::ComboBoxText* combo) {
    std::vector<std::string> entries;
    for (const auto& row : combo->get_model()->children()) {
        Glib::ustring text;
        row.get_value(0, text);
        entries.push_back(text);
    }
    return entries;
}

class WindowWidgets : public ::testing::Test {
protected:
    void SetUp() override { guitest::application(); }

    // The window's texts, the file dialog's buttons and its filters.
    void expectLanguage(bool russian) {
        for (const Text& text : kTexts) {
            EXPECT_EQ(ui.text(text.id), russian ? text.russian : text.english) << text.id;
        }
        auto* files = ui.get<Gtk::FileChooserDialog>("OpenFileDialog");
        auto label = [&](int response) {
            return std::string(
                dynamic_cast<Gtk::Button*>(files->get_widget_for_response(response))->get_label());
        };
        EXPECT_EQ(label(Gtk::RESPONSE_OK), russian ? "Открыть" : "Open");
        EXPECT_EQ(label(Gtk::RESPONSE_CANCEL), russian ? "Отмена" : "Cancel");
        std::vector<std::string> filters;
        for (const auto& filter : files->list_filters()) {
            filters.push_back(filter->get_name());
        }
        EXPECT_EQ(filters,
                  (std::vector<std::string>{"Binar Files (*.bin)", "Hex Files (*.hex)", "All Files (*.*)"}));
        EXPECT_EQ(dialog()->get_title(), "Connection");
        EXPECT_EQ(comboEntries(ui.get<Gtk::ComboBoxText>("FirmwareMethodComboBoxText")),
                  (std::vector<std::string>{"STM32", "ESP32"}));
    }

    void openConnectionDialog() {
        ui.get<Gtk::MenuItem>("ConnectImageMenuItem")->activate();
        ASSERT_TRUE(ToolkitLoop::runUntil([&] { return dialog()->get_mapped(); }));
        EXPECT_FALSE(ui.window().get_sensitive());
    }

    Gtk::Dialog* dialog() { return ui.get<Gtk::Dialog>("ConnectionDialog"); }
    bool sensitive(const char* id) { return ui.get<Gtk::Widget>(id)->get_sensitive(); }
    std::string entryText(const char* id) { return ui.get<Gtk::Entry>(id)->get_text(); }
    std::string tooltip(const char* id) { return ui.get<Gtk::Entry>(id)->get_tooltip_text(); }
    // Which target's file button and entry the user can reach.
    void expectFileControls(bool stm32, bool esp32) {
        EXPECT_EQ(sensitive("SelectFirmwareStm32Button"), stm32);
        EXPECT_EQ(sensitive("SelectFirmwareSearchEntryStm32"), stm32);
        EXPECT_EQ(sensitive("SelectFirmwareEsp32Button"), esp32);
        EXPECT_EQ(sensitive("SelectFirmwareSearchEntryEsp32"), esp32);
    }

    testsupport::ScopedEnv extraPorts{"MERID_EXTRA_PORTS", std::nullopt};
    WindowUnderTest ui;
};

} // namespace

TEST_F(WindowWidgets, RussianAtStartAndTheLanguageSwitchFlipsEveryTextAndBack) {
    expectLanguage(true);
    // No mnemonic mark shows in the plain item.
    EXPECT_EQ(ui.text("ConnectionMenuItem").find('_'), std::string::npos);
    auto& events = GlobalHandlerEvents::getInstance();
    ASSERT_EQ(events._executeHandler(SWITCH_LANG), GlobalHandlerEvents::Success);
    expectLanguage(false);
    ASSERT_EQ(events._executeHandler(SWITCH_LANG), GlobalHandlerEvents::Success);
    expectLanguage(true);
}

TEST_F(WindowWidgets, ConnectionDialogHoldsTheWindowUntilItIsClosedAnyWay) {
    ui.window().show();
    ASSERT_TRUE(ToolkitLoop::runUntil([&] { return ui.window().get_mapped(); }));
    openConnectionDialog();
    // The speeds with 115200 chosen; the type and protocol controls never show.
    auto* speeds = ui.get<Gtk::ComboBoxText>("BaudratesListComboTextBox");
    EXPECT_EQ(comboEntries(speeds), (std::vector<std::string>{"57600", "115200", "230400", "460800", "500000",
                                                              "576000", "921600", "1000000", "2000000"}));
    EXPECT_EQ(speeds->get_active_text(), "115200");
    for (const char* id : {"TypeConnectionComboBoxText", "TypeConnectionLable", "ProtocolTypeComboBoxText"}) {
        EXPECT_FALSE(ui.get<Gtk::Widget>(id)->is_visible()) << id;
    }
    EXPECT_TRUE(ui.get<Gtk::Widget>("PortsListComboTextBox")->is_visible());
    ui.get<Gtk::Button>("DialogCloseButton")->clicked();
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return !dialog()->get_visible(); }));
    EXPECT_TRUE(ui.window().get_sensitive());

    // The window frame's close button: the dialog hides and stays usable.
    openConnectionDialog();
    GdkEvent* event = gdk_event_new(GDK_DELETE);
    event->any.window = GDK_WINDOW(g_object_ref(dialog()->get_window()->gobj()));
    event->any.send_event = TRUE;
    gtk_main_do_event(event);
    gdk_event_free(event);
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return !dialog()->get_visible(); }));
    EXPECT_TRUE(ui.window().get_sensitive());
}

TEST_F(WindowWidgets, ChoosingEsp32LeavesOnlyTheEsp32FileControlsSensitive) {
    auto* method = ui.get<Gtk::ComboBoxText>("FirmwareMethodComboBoxText");
    EXPECT_EQ(method->get_active_text(), "STM32");
    expectFileControls(true, false);
    CapturingLogger captured;
    method->set_active_text("ESP32");
    expectFileControls(false, true);
    EXPECT_TRUE(sensitive("UploadButton"));
    // The same choice again raises nothing.
    method->set_active_text("ESP32");
    EXPECT_EQ(captured.count("Execute handler SELECT_ESP32"), 1u);
    method->set_active_text("STM32");
    expectFileControls(true, false);
}

TEST_F(WindowWidgets, TheUsersFileAndThePreinstalledImagesShowByNameAndTheFileOutlastsTheSwitchAndACancel) {
    TempDir dir;
    const std::string image = dir.path() + "/board-image.bin";
    std::ofstream(image) << "image";
    ui.answerFileDialog("SelectFirmwareStm32Button", image);
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryStm32"), "board-image.bin");
    EXPECT_EQ(tooltip("SelectFirmwareSearchEntryStm32"), image);
    // Without a file an entry shows a dot and no tooltip.
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryEsp32"), ".");
    EXPECT_EQ(tooltip("SelectFirmwareSearchEntryEsp32"), "");

    ui.get<Gtk::Switch>("FirmwareSourceModeSwitch")->set_active(true);
    const std::string folder = Glib::get_tmp_dir() + "/MeridKestalUtility/firmware/";
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryEsp32"), "merid_firmware.bin");
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryStm32"), "Tovik_2.13.319.f75a0c3_aes.bin");
    EXPECT_EQ(tooltip("SelectFirmwareSearchEntryEsp32"), folder + "merid_firmware.bin");
    EXPECT_EQ(tooltip("SelectFirmwareSearchEntryStm32"), folder + "Tovik_2.13.319.f75a0c3_aes.bin");
    expectFileControls(false, false);
    EXPECT_TRUE(sensitive("UploadButton"));

    ui.get<Gtk::Switch>("FirmwareSourceModeSwitch")->set_active(false);
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryStm32"), "board-image.bin");
    EXPECT_EQ(tooltip("SelectFirmwareSearchEntryEsp32"), "");
    expectFileControls(true, false);

    CapturingLogger captured;
    ui.answerFileDialog("SelectFirmwareStm32Button", "");
    EXPECT_TRUE(captured.contains("MainWindow: File not found or path is not set!", BaseLogger::WARNING));
    EXPECT_TRUE(captured.contains("OpenFileDialog: Error with Open File for STM32!", BaseLogger::ERROR));
    EXPECT_EQ(tooltip("SelectFirmwareSearchEntryStm32"), image);
}

TEST_F(WindowWidgets, SearchWithoutALinkLogsAndListsNothing) {
    CapturingLogger captured;
    ui.get<Gtk::Button>("SearchDeviceButton")->clicked();
    EXPECT_TRUE(captured.contains("MainWindow: Search devices requested, but there is no active COM/USB "
                                  "connection. Open the Connection dialog and connect first.",
                                  BaseLogger::ERROR));
    ToolkitLoop::runFor(std::chrono::milliseconds(300));
    EXPECT_TRUE(ui.get<Gtk::ListBox>("ListDeviceListBox")->get_children().empty());
    EXPECT_FALSE(captured.contains("DeviceListBox: Thread is started"));
}
