// The window as the program builds it, driven the way a user drives it:
// labels, the language switch, the connection dialog, the firmware choice
// and the file dialog.
#include "FakeSerialPort.h"
#include "GlobalHandlerEvents.h"
#include "GuiTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

using guitest::pumpUntil;
using guitest::WindowUnderTest;
using testsupport::CapturingLogger;
using testsupport::ScopedEnv;
using testsupport::TempDir;

namespace {

// Every text the widgets set, by the id of the child that shows it.
using Texts = std::map<std::string, std::string>;

const Texts kRussianLabels = {
    {"ConnectionLabel", "Подключение"},
    {"ProtocolLabel", "Протокол"},
    {"TypeConnectionLable", "Тип"},
    {"CurrentTypeConnectionLable", "Последовательный"},
    {"PortLabel", "Порт"},
    {"BaudrateLabel", "Скорость в бодах"},
    {"ConnectionPortPage", "COM"},
    {"DeviceListLable", "Список устройств"},
    {"FirmwareMethodLable", "Устройство для прошивки"},
    {"FirmwareSourceModeSwitchLabel", "Использовать предустановленную прошивку"},
    {"SelectFirmwareBoxEsp32Label", "Путь для прошивки ESP32"},
    {"SelectFirmwareBoxStm32Label", "Путь для прошивки STM32"},
    {"SelectFirmwareLabel", "Загрузка прошивки"},
};
const Texts kRussianButtons = {
    {"DialogConnectButton", "Подключить"},     {"DialogCloseButton", "Закрыть"},
    {"SearchDeviceButton", "Поиск устройств"}, {"UploadButton", "Загрузить"},
    {"SelectFirmwareEsp32Button", "Поиск"},    {"SelectFirmwareStm32Button", "Поиск"},
};
const Texts kRussianMenu = {
    {"ConnectionMenuItem", "Подключение"},
    {"ConnectImageMenuItem", "Подключиться"},
    {"DisconnectImageMenuItem", "Отключиться"},
    {"QuitImageMenuItem", "Выход"},
};
const Texts kEnglishLabels = {
    {"ConnectionLabel", "Connection"},
    {"ProtocolLabel", "Protocol"},
    {"TypeConnectionLable", "Type"},
    {"CurrentTypeConnectionLable", "Serial"},
    {"PortLabel", "Port"},
    {"BaudrateLabel", "Baudrate"},
    {"ConnectionPortPage", "COM"},
    {"DeviceListLable", "Device list"},
    {"FirmwareMethodLable", "Device for flashing"},
    {"FirmwareSourceModeSwitchLabel", "Use preinstalled firmware"},
    {"SelectFirmwareBoxEsp32Label", "Firmware path for ESP32"},
    {"SelectFirmwareBoxStm32Label", "Firmware path for STM32"},
    {"SelectFirmwareLabel", "Upload firmware"},
};
const Texts kEnglishButtons = {
    {"DialogConnectButton", "Connect"},       {"DialogCloseButton", "Close"},
    {"SearchDeviceButton", "Search devices"}, {"UploadButton", "Upload"},
    {"SelectFirmwareEsp32Button", "Search"},  {"SelectFirmwareStm32Button", "Search"},
};
const Texts kEnglishMenu = {
    {"ConnectionMenuItem", "Connection"},
    {"ConnectImageMenuItem", "Connect"},
    {"DisconnectImageMenuItem", "Disconnect"},
    {"QuitImageMenuItem", "Quit"},
};

class WindowWidgets : public ::testing::Test {
protected:
    void SetUp() override { guitest::application(); }

    void expectTexts(const Texts& labels, const Texts& buttons, const Texts& menu) {
        for (const auto& [id, text] : labels) {
            EXPECT_EQ(ui.labelText(id.c_str()), text) << id;
        }
        for (const auto& [id, text] : buttons) {
            EXPECT_EQ(ui.buttonText(id.c_str()), text) << id;
        }
        for (const auto& [id, text] : menu) {
            EXPECT_EQ(ui.menuItemText(id.c_str()), text) << id;
        }
    }

    // The two buttons the file dialog's code added, by their responses.
    std::pair<std::string, std::string> fileDialogButtons() {
        auto* dialog = ui.get<Gtk::FileChooserDialog>("OpenFileDialog");
        auto* open = dialog->get_widget_for_response(Gtk::RESPONSE_OK);
        auto* cancel = dialog->get_widget_for_response(Gtk::RESPONSE_CANCEL);
        auto text = [](Gtk::Widget* widget) {
            auto* button = dynamic_cast<Gtk::Button*>(widget);
            return button != nullptr ? std::string(button->get_label()) : std::string("<missing>");
        };
        return {text(open), text(cancel)};
    }

    std::vector<std::string> comboEntries(const char* id) {
        auto* combo = ui.get<Gtk::ComboBoxText>(id);
        std::vector<std::string> entries;
        auto model = combo->get_model();
        for (const auto& row : model->children()) {
            Glib::ustring text;
            row.get_value(0, text);
            entries.push_back(text);
        }
        return entries;
    }

    void openConnectionDialog() {
        ui.get<Gtk::MenuItem>("ConnectImageMenuItem")->activate();
        ASSERT_TRUE(pumpUntil([&] { return dialog()->get_visible(); }));
    }

    Gtk::Dialog* dialog() { return ui.get<Gtk::Dialog>("ConnectionDialog"); }

    // Closes a window as the window manager's close button does.
    static void closeByFrame(Gtk::Window& window) {
        GdkEvent* event = gdk_event_new(GDK_DELETE);
        event->any.window = GDK_WINDOW(g_object_ref(window.get_window()->gobj()));
        event->any.send_event = TRUE;
        gtk_main_do_event(event);
        gdk_event_free(event);
    }

    ScopedEnv extraPorts{"MERID_EXTRA_PORTS", std::nullopt};
    WindowUnderTest ui;
};

} // namespace

TEST_F(WindowWidgets, EveryTextIsRussianAtStart) {
    expectTexts(kRussianLabels, kRussianButtons, kRussianMenu);
    EXPECT_EQ(fileDialogButtons(), std::make_pair(std::string("Открыть"), std::string("Отмена")));
    EXPECT_EQ(dialog()->get_title(), "Connection");
    // No mnemonic mark shows in the plain item.
    const std::string plain = ui.get<Gtk::MenuItem>("ConnectionMenuItem")->get_label();
    EXPECT_EQ(plain.find('_'), std::string::npos);
}

TEST_F(WindowWidgets, SwitchLangFlipsEveryTextAndBackWhileTheDialogTitleStays) {
    const auto baudratesBefore = comboEntries("BaudratesListComboTextBox");
    const auto portsBefore = comboEntries("PortsListComboTextBox");
    auto& events = GlobalHandlerEvents::getInstance();

    ASSERT_EQ(events._executeHandler(SWITCH_LANG), GlobalHandlerEvents::Success);
    expectTexts(kEnglishLabels, kEnglishButtons, kEnglishMenu);
    EXPECT_EQ(fileDialogButtons(), std::make_pair(std::string("Open"), std::string("Cancel")));
    EXPECT_EQ(dialog()->get_title(), "Connection");
    EXPECT_EQ(comboEntries("BaudratesListComboTextBox"), baudratesBefore);
    EXPECT_EQ(comboEntries("PortsListComboTextBox"), portsBefore);
    EXPECT_EQ(comboEntries("FirmwareMethodComboBoxText"), (std::vector<std::string>{"STM32", "ESP32"}));

    ASSERT_EQ(events._executeHandler(SWITCH_LANG), GlobalHandlerEvents::Success);
    expectTexts(kRussianLabels, kRussianButtons, kRussianMenu);
    EXPECT_EQ(fileDialogButtons(), std::make_pair(std::string("Открыть"), std::string("Отмена")));
    EXPECT_EQ(dialog()->get_title(), "Connection");
}

TEST_F(WindowWidgets, ConnectionDialogHoldsTheWindowUntilItIsClosedAnyWay) {
    ui.window().show();
    ASSERT_TRUE(pumpUntil([&] { return ui.window().get_mapped(); }));
    ASSERT_TRUE(ui.window().get_sensitive());

    // The dialog's own close button.
    openConnectionDialog();
    EXPECT_FALSE(ui.window().get_sensitive());
    ui.get<Gtk::Button>("DialogCloseButton")->clicked();
    EXPECT_TRUE(pumpUntil([&] { return !dialog()->get_visible(); }));
    EXPECT_TRUE(ui.window().get_sensitive());

    // The window frame's close button: the dialog hides and stays usable.
    openConnectionDialog();
    ASSERT_TRUE(pumpUntil([&] { return dialog()->get_mapped(); }));
    EXPECT_FALSE(ui.window().get_sensitive());
    closeByFrame(*dialog());
    EXPECT_TRUE(pumpUntil([&] { return !dialog()->get_visible(); }));
    EXPECT_TRUE(ui.window().get_sensitive());

    // Hidden by anything else.
    openConnectionDialog();
    EXPECT_FALSE(ui.window().get_sensitive());
    dialog()->hide();
    EXPECT_TRUE(ui.window().get_sensitive());
}

TEST_F(WindowWidgets, WithoutAPortTheListSaysNoneAndConnectRefuses) {
    openConnectionDialog();
    // The machine may have serial ports of its own: the dialog opened from
    // the menu is pointed at a link that finds none, as on a machine without
    // any.
    UsbCommunication portless(std::make_unique<FakeSerialPort>());
    auto* connection = MainWindowTestAccess::connectionDialog(ui.window());
    connection->setUsbConnetctionPtr(portless);
    EXPECT_EQ(comboEntries("PortsListComboTextBox"), std::vector<std::string>{"None"});
    auto* portsList = ui.get<Gtk::ComboBoxText>("PortsListComboTextBox");
    EXPECT_EQ(portsList->get_active_text(), "None");
    EXPECT_EQ(ui.get<Gtk::ComboBoxText>("BaudratesListComboTextBox")->get_active_text(), "115200");

    CapturingLogger captured;
    ui.get<Gtk::Button>("DialogConnectButton")->clicked();
    EXPECT_TRUE(captured.contains(
        "ConnectionDialog: No COM ports available/selected. Plug the device in and press Reset/Search ports.",
        BaseLogger::ERROR));
    EXPECT_TRUE(captured.contains(
        "ConnectionDialog: Connection failed (see SerialPort/UsbCommunication logs for details)",
        BaseLogger::ERROR));
    guitest::pumpFor(std::chrono::milliseconds(50));
    EXPECT_TRUE(dialog()->get_visible());
    EXPECT_FALSE(ui.window().get_sensitive());
    EXPECT_FALSE(portless.isConnected());
    dialog()->hide();
    EXPECT_TRUE(ui.window().get_sensitive());
}

TEST_F(WindowWidgets, ChoosingEsp32LeavesOnlyTheEsp32FileControlsSensitive) {
    auto* method = ui.get<Gtk::ComboBoxText>("FirmwareMethodComboBoxText");
    auto sensitive = [&](const char* id) { return ui.get<Gtk::Widget>(id)->get_sensitive(); };
    // The STM32 is the target at start.
    EXPECT_EQ(method->get_active_text(), "STM32");
    EXPECT_EQ(MainWindowTestAccess::firmwareTarget(ui.window()), 0);
    EXPECT_TRUE(sensitive("SelectFirmwareStm32Button"));
    EXPECT_TRUE(sensitive("SelectFirmwareSearchEntryStm32"));
    EXPECT_FALSE(sensitive("SelectFirmwareEsp32Button"));
    EXPECT_FALSE(sensitive("SelectFirmwareSearchEntryEsp32"));

    CapturingLogger captured;
    method->set_active_text("ESP32");
    EXPECT_EQ(MainWindowTestAccess::firmwareTarget(ui.window()), 1);
    EXPECT_TRUE(sensitive("SelectFirmwareEsp32Button"));
    EXPECT_TRUE(sensitive("SelectFirmwareSearchEntryEsp32"));
    EXPECT_FALSE(sensitive("SelectFirmwareStm32Button"));
    EXPECT_FALSE(sensitive("SelectFirmwareSearchEntryStm32"));
    EXPECT_TRUE(sensitive("UploadButton"));
    EXPECT_TRUE(captured.contains("MainWindow: Off sensitive for search/download STM32 and On for ESP32",
                                  BaseLogger::DEBUG));
    // The same choice again raises nothing.
    method->set_active_text("ESP32");
    EXPECT_EQ(captured.count("Execute handler SELECT_ESP32"), 1u);

    method->set_active_text("STM32");
    EXPECT_EQ(MainWindowTestAccess::firmwareTarget(ui.window()), 0);
    EXPECT_TRUE(sensitive("SelectFirmwareStm32Button"));
    EXPECT_FALSE(sensitive("SelectFirmwareEsp32Button"));
}

TEST_F(WindowWidgets, PreinstalledSwitchWritesBothImagesAndShowsTheirNames) {
    const std::filesystem::path folder =
        std::filesystem::path(Glib::get_tmp_dir()) / "MeridKestalUtility" / "firmware";
    const auto esp32 = folder / "merid_firmware.bin";
    const auto stm32 = folder / "Tovik_2.13.319.f75a0c3_aes.bin";
    std::filesystem::remove(esp32);
    std::filesystem::remove(stm32);

    auto* entryEsp32 = ui.get<Gtk::Entry>("SelectFirmwareSearchEntryEsp32");
    auto* entryStm32 = ui.get<Gtk::Entry>("SelectFirmwareSearchEntryStm32");
    // Without a file an entry shows a dot and no tooltip.
    EXPECT_EQ(entryStm32->get_text(), ".");
    EXPECT_EQ(entryStm32->get_tooltip_text(), "");

    ui.get<Gtk::Switch>("FirmwareSourceModeSwitch")->set_active(true);
    ASSERT_TRUE(std::filesystem::exists(esp32));
    ASSERT_TRUE(std::filesystem::exists(stm32));
    EXPECT_EQ(std::filesystem::file_size(esp32), 1803184u);
    EXPECT_EQ(std::filesystem::file_size(stm32), 37312u);
    EXPECT_EQ(entryEsp32->get_text(), "merid_firmware.bin");
    EXPECT_EQ(entryStm32->get_text(), "Tovik_2.13.319.f75a0c3_aes.bin");
    EXPECT_EQ(entryEsp32->get_tooltip_text(), esp32.string());
    EXPECT_EQ(entryStm32->get_tooltip_text(), stm32.string());
    for (const char* id : {"SelectFirmwareEsp32Button", "SelectFirmwareSearchEntryEsp32",
                           "SelectFirmwareStm32Button", "SelectFirmwareSearchEntryStm32"}) {
        EXPECT_FALSE(ui.get<Gtk::Widget>(id)->get_sensitive()) << id;
    }
    EXPECT_TRUE(ui.get<Gtk::Widget>("UploadButton")->get_sensitive());
    EXPECT_EQ(MainWindowTestAccess::selectFirmwareBox(ui.window())->getFilePath(), stm32.string());

    ui.get<Gtk::Switch>("FirmwareSourceModeSwitch")->set_active(false);
    EXPECT_EQ(entryStm32->get_text(), ".");
    EXPECT_TRUE(ui.get<Gtk::Widget>("SelectFirmwareStm32Button")->get_sensitive());
    EXPECT_FALSE(ui.get<Gtk::Widget>("SelectFirmwareEsp32Button")->get_sensitive());
    EXPECT_EQ(MainWindowTestAccess::selectFirmwareBox(ui.window())->getFilePath(), "");
}

TEST_F(WindowWidgets, FileChosenInTheDialogShowsItsBaseNameWithTheFullPathAsTooltip) {
    TempDir dir;
    const std::string image = dir.path() + "/board-image.bin";
    std::ofstream(image) << "image";
    auto* fileDialog = ui.get<Gtk::FileChooserDialog>("OpenFileDialog");

    // The dialog runs in a nested loop; the answer comes from a timer set
    // before the click, once the chooser has taken the file.
    bool asked = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    auto answer = Glib::signal_timeout().connect(
        [&] {
            if (!fileDialog->get_visible()) {
                return true;
            }
            if (!asked) {
                fileDialog->set_filename(image);
                asked = true;
                return true;
            }
            if (fileDialog->get_filename() == image) {
                fileDialog->response(Gtk::RESPONSE_OK);
                return false;
            }
            if (std::chrono::steady_clock::now() > deadline) {
                fileDialog->response(Gtk::RESPONSE_CANCEL);
                return false;
            }
            return true;
        },
        20);
    CapturingLogger captured;
    ui.get<Gtk::Button>("SelectFirmwareStm32Button")->clicked();
    answer.disconnect();

    auto* entry = ui.get<Gtk::Entry>("SelectFirmwareSearchEntryStm32");
    EXPECT_EQ(entry->get_text(), "board-image.bin");
    EXPECT_EQ(entry->get_tooltip_text(), image);
    EXPECT_FALSE(fileDialog->get_visible());
    EXPECT_EQ(MainWindowTestAccess::selectFirmwareBox(ui.window())->getFilePath(), image);
    EXPECT_TRUE(captured.contains("MainWindow: Open File Dialog is open!", BaseLogger::DEBUG));
    EXPECT_TRUE(captured.contains("OpenFileDialog: Open File for STM32 is success!", BaseLogger::INFO));
}

TEST_F(WindowWidgets, CancelledFileDialogKeepsTheStoredPath) {
    auto* fileDialog = ui.get<Gtk::FileChooserDialog>("OpenFileDialog");
    auto answer = Glib::signal_timeout().connect(
        [&] {
            if (!fileDialog->get_visible()) {
                return true;
            }
            fileDialog->unselect_all();
            fileDialog->response(Gtk::RESPONSE_CANCEL);
            return false;
        },
        20);
    CapturingLogger captured;
    ui.get<Gtk::Button>("SelectFirmwareStm32Button")->clicked();
    answer.disconnect();
    EXPECT_TRUE(captured.contains("MainWindow: File not found or path is not set!", BaseLogger::WARNING));
    EXPECT_TRUE(captured.contains("OpenFileDialog: Error with Open File for STM32!", BaseLogger::ERROR));
    EXPECT_EQ(ui.get<Gtk::Entry>("SelectFirmwareSearchEntryStm32")->get_text(), ".");
    EXPECT_FALSE(fileDialog->get_visible());
}

TEST_F(WindowWidgets, SearchWithoutALinkLogsAndListsNothing) {
    CapturingLogger captured;
    ui.get<Gtk::Button>("SearchDeviceButton")->clicked();
    EXPECT_TRUE(captured.contains("MainWindow: Search devices requested, but there is no active COM/USB "
                                  "connection. Open the Connection dialog and connect first.",
                                  BaseLogger::ERROR));
    EXPECT_TRUE(captured.contains(
        "DeviceListBox: Device search request transmitted with error (no active connection?)",
        BaseLogger::ERROR));
    guitest::pumpFor(std::chrono::milliseconds(300));
    EXPECT_TRUE(ui.get<Gtk::ListBox>("ListDeviceListBox")->get_children().empty());
    EXPECT_FALSE(captured.contains("DeviceListBox: Thread is started"));
}
