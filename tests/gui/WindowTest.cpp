// The window as the program builds it: where it takes its interface
// definition from, the log level it applies, and what a user sees and does
// in it: the texts in both languages, the connection dialog, the firmware
// choice and the file dialog.
#include "GlobalHandlerEvents.h"
#include "GuiTestSupport.h"
#include "MeridResources.h"
#include "TestSupport.h"

#include <fstream>
#include <string>
#include <vector>

using guitest::WindowUnderTest;
using testsupport::CapturingLogger;
using testsupport::ScopedEnv;
using testsupport::TempDir;
using testsupport::ToolkitLoop;

namespace {

const std::string kResourceLine =
    "MainWindow: loading UI from GResource /meridkestalutility/ui/UserInterface.glade";

// Messages logged without a domain, which is where the loading lines go.
std::vector<std::string> gMessages;

class MainWindowLoading : public ::testing::Test {
protected:
    void SetUp() override {
        guitest::application();
        gMessages.clear();
        g_log_set_default_handler(
            [](const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer) {
                if (domain == nullptr && (level & G_LOG_LEVEL_MESSAGE) != 0) {
                    gMessages.emplace_back(message);
                } else {
                    g_log_default_handler(domain, level, message, nullptr);
                }
            },
            nullptr);
    }
    void TearDown() override { g_log_set_default_handler(&g_log_default_handler, nullptr); }

    ScopedEnv glade{"MERID_UI_GLADE", std::nullopt};
};

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

    ScopedEnv extraPorts{"MERID_EXTRA_PORTS", std::nullopt};
    WindowUnderTest ui;
};

} // namespace

// A set override is taken only when it names a file; an empty one, or one
// that names nothing, is passed over without a word.
TEST_F(MainWindowLoading, TheOverrideIsTakenOnlyWhenItNamesAFile) {
    const std::string source = std::string(MERID_SOURCE_ROOT) + "/UI/UserInterface.glade";
    for (const auto& [value, first] :
         {std::pair{std::string(), kResourceLine}, std::pair{source + ".missing", kResourceLine},
          std::pair{source, "MainWindow: loading UI from file override: " + source}}) {
        ScopedEnv override("MERID_UI_GLADE", value);
        gMessages.clear();
        WindowUnderTest ui;
        EXPECT_EQ(gMessages,
                  (std::vector<std::string>{first, "MainWindow: resolving derived widget MainWindow...",
                                            "MainWindow: widget resolved, initializing...",
                                            "MainWindow: initWidgets done."}))
            << value;
    }
}

TEST_F(MainWindowLoading, WithoutTheResourceAFileOnDiskIsTheFallback) {
    // The bundle may be registered more than once; take all of it away.
    GResource* bundle = merid_ui_get_resource();
    int unregistered = 0;
    for (; unregistered < 16 && g_resources_get_info("/meridkestalutility/ui/UserInterface.glade",
                                                     G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr, nullptr, nullptr);
         ++unregistered) {
        g_resources_unregister(bundle);
    }
    auto ui = std::make_unique<WindowUnderTest>();
    for (int count = 0; count < unregistered; ++count) {
        g_resources_register(bundle);
    }
    ASSERT_GE(gMessages.size(), 2u);
    EXPECT_EQ(gMessages[0], kResourceLine);
    // The file beside the working directory wins over the source tree's.
    const std::string fallback = "MainWindow: loading UI from file fallback: ";
    EXPECT_TRUE(gMessages[1] == fallback + MERID_SOURCE_ROOT + "/UI/UserInterface.glade" ||
                gMessages[1] == fallback + "UI/UserInterface.glade")
        << gMessages[1];
    EXPECT_EQ(ui->text("UploadButton"), "Загрузить");
}

// The level as the window applies it while it comes up: IMPORTANT drops the
// INFO line of its start, OFF drops the file sink as well.
TEST_F(MainWindowLoading, TheWindowAppliesTheLogLevelOfTheEnvironment) {
    for (const std::string level : {"Important", "oFF"}) {
        ScopedEnv variable("MERID_LOG_LEVEL", level);
        CapturingLogger captured;
        WindowUnderTest ui;
        EXPECT_FALSE(captured.contains("MainWindow: Init Widgets", BaseLogger::INFO)) << level;
        EXPECT_EQ(LoggerManager::getInstance().checkLoggerExists(LoggerManager::FILE), level != "oFF")
            << level;
    }
}

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

TEST_F(WindowWidgets, TheWindowsSizeAndAConnectionDialogThatHoldsItUntilClosedEitherWay) {
    EXPECT_EQ(ui.window().get_title(), "MeridKestalUtility");
    ui.window().show();
    ToolkitLoop::runUntil(
        [&] { return ui.window().get_mapped() && ui.window().get_allocated_width() >= 500; });
    EXPECT_EQ(ui.window().get_allocated_width(), 500);
    EXPECT_EQ(ui.window().get_allocated_height(), 550);
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
    dialog()->close();
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
