// The window as the program builds it: where it takes its interface
// definition from, the log level it applies, and what a user sees and does
// in it: the texts in both languages, the connection dialog, the firmware
// choice and the file dialog.
#include "GlobalHandlerEvents.h"
#include "GuiTestSupport.h"
#include "MeridResources.h"
#include "TestSupport.h"

#include <fstream>
#include <map>
#include <set>
#include <sstream>
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
        handler = g_log_set_handler(
            nullptr, G_LOG_LEVEL_MESSAGE,
            [](const gchar*, GLogLevelFlags, const gchar* message, gpointer) {
                gMessages.emplace_back(message);
            },
            nullptr);
    }
    void TearDown() override { g_log_remove_handler(nullptr, handler); }

    guint handler = 0;
    ScopedEnv glade{"MERID_UI_GLADE", std::nullopt};
};

// Every text of the interface in Russian, with its English form; the file
// dialog's two buttons are named by their response.
const std::map<std::string, std::string> kEnglish = [] {
    std::map<std::string, std::string> english;
    std::istringstream pairs(
        "Подключение=Connection;Протокол=Protocol;Тип=Type;Последовательный=Serial;Порт=Port;"
        "Скорость в бодах=Baudrate;COM=COM;Список устройств=Device list;"
        "Устройство для прошивки=Device for flashing;Загрузка прошивки=Upload firmware;"
        "Использовать предустановленную прошивку=Use preinstalled firmware;"
        "Путь для прошивки ESP32=Firmware path for ESP32;"
        "Путь для прошивки STM32=Firmware path for STM32;Подключить=Connect;Закрыть=Close;"
        "Поиск устройств=Search devices;Загрузить=Upload;Поиск=Search;Подключиться=Connect;"
        "Отключиться=Disconnect;Выход=Quit;Открыть=Open;Отмена=Cancel;0%=0%;");
    for (std::string russian, text; std::getline(pairs, russian, '=') && std::getline(pairs, text, ';');) {
        english[russian] = text;
    }
    return english;
}();

class WindowWidgets : public ::testing::Test {
protected:
    void SetUp() override { guitest::application(); }

    // The text of every label, button and menu item that shows one, by id.
    std::map<std::string, std::string> texts() {
        std::map<std::string, std::string> shown;
        for (const auto& object : MainWindowTestAccess::builder(ui.window())->get_objects()) {
            if (dynamic_cast<Gtk::Label*>(object.get()) || dynamic_cast<Gtk::Button*>(object.get()) ||
                dynamic_cast<Gtk::MenuItem*>(object.get())) {
                const char* id = gtk_buildable_get_name(GTK_BUILDABLE(object->gobj()));
                if (!ui.text(id).empty()) {
                    shown[id] = ui.text(id);
                }
            }
        }
        auto* files = ui.get<Gtk::FileChooserDialog>("OpenFileDialog");
        for (int response : {Gtk::RESPONSE_OK, Gtk::RESPONSE_CANCEL}) {
            shown["response " + std::to_string(response)] =
                dynamic_cast<Gtk::Button*>(files->get_widget_for_response(response))->get_label();
        }
        return shown;
    }

    void openConnectionDialog() {
        ui.get<Gtk::MenuItem>("ConnectImageMenuItem")->activate();
        ASSERT_TRUE(ToolkitLoop::runUntil([&] { return dialog()->get_mapped(); }));
        EXPECT_FALSE(ui.window().get_sensitive());
    }

    Gtk::Dialog* dialog() { return ui.get<Gtk::Dialog>("ConnectionDialog"); }
    bool sensitive(const char* id) { return ui.get<Gtk::Widget>(id)->get_sensitive(); }
    // What a target's file entry shows: a name, with the full path as its tooltip.
    std::pair<std::string, std::string> fileEntry(const std::string& target) {
        auto* entry = ui.get<Gtk::Entry>(("SelectFirmwareSearchEntry" + target).c_str());
        return {entry->get_text(), entry->get_tooltip_text()};
    }
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

// Each text starts in Russian, and each switch of the language flips all of
// them.
TEST_F(WindowWidgets, EveryTextStartsRussianAndTheLanguageSwitchFlipsItAndBack) {
    auto russian = texts();
    std::map<std::string, std::string> english;
    std::set<std::string> shown;
    for (const auto& [id, text] : russian) {
        english[id] = kEnglish.contains(text) ? kEnglish.at(text) : "not Russian: " + text;
        shown.insert(text);
    }
    EXPECT_EQ(shown.size(), kEnglish.size()) << "a text of the table is shown nowhere";
    for (const auto* expected : {&english, &russian}) {
        ASSERT_EQ(GlobalHandlerEvents::getInstance()._executeHandler(SWITCH_LANG),
                  GlobalHandlerEvents::Success);
        EXPECT_EQ(texts(), *expected);
    }
}

TEST_F(WindowWidgets, ASearchWithoutALinkAndAConnectionDialogThatHoldsTheWindowUntilClosedEitherWay) {
    CapturingLogger captured;
    ui.get<Gtk::Button>("SearchDeviceButton")->clicked();
    EXPECT_TRUE(captured.contains("MainWindow: Search devices requested, but there is no active COM/USB "
                                  "connection. Open the Connection dialog and connect first.",
                                  BaseLogger::ERROR));
    ToolkitLoop::runFor(std::chrono::milliseconds(300));
    EXPECT_TRUE(ui.get<Gtk::ListBox>("ListDeviceListBox")->get_children().empty());

    openConnectionDialog();
    // 115200 baud chosen; the type and protocol controls never show.
    EXPECT_EQ(ui.get<Gtk::ComboBoxText>("BaudratesListComboTextBox")->get_active_text(), "115200");
    for (const char* id : {"TypeConnectionComboBoxText", "TypeConnectionLable", "ProtocolTypeComboBoxText"}) {
        EXPECT_FALSE(ui.get<Gtk::Widget>(id)->is_visible()) << id;
    }
    EXPECT_TRUE(ui.get<Gtk::Widget>("PortsListComboTextBox")->is_visible());
    // The close button, then the window frame's: the dialog hides and stays usable.
    ui.get<Gtk::Button>("DialogCloseButton")->clicked();
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return !dialog()->get_visible(); }));
    EXPECT_TRUE(ui.window().get_sensitive());
    openConnectionDialog();
    dialog()->close();
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return !dialog()->get_visible(); }));
    EXPECT_TRUE(ui.window().get_sensitive());
}

// The target's file controls follow the choice; the user's file and the
// preinstalled images show by name, and the file outlasts the switch and a
// cancelled dialog.
TEST_F(WindowWidgets, TheChosenTargetsFileControlsAndTheFileShownByName) {
    auto* method = ui.get<Gtk::ComboBoxText>("FirmwareMethodComboBoxText");
    EXPECT_EQ(method->get_active_text(), "STM32");
    expectFileControls(true, false);
    method->set_active_text("ESP32");
    expectFileControls(false, true);
    EXPECT_TRUE(sensitive("UploadButton"));
    method->set_active_text("STM32");
    expectFileControls(true, false);

    TempDir dir;
    const std::string image = dir.path() + "/board-image.bin";
    std::ofstream(image) << "image";
    ui.answerFileDialog("SelectFirmwareStm32Button", image);
    using Shown = std::pair<std::string, std::string>;
    EXPECT_EQ(fileEntry("Stm32"), Shown("board-image.bin", image));
    // Without a file an entry shows a dot and no tooltip.
    EXPECT_EQ(fileEntry("Esp32"), Shown(".", ""));

    ui.get<Gtk::Switch>("FirmwareSourceModeSwitch")->set_active(true);
    const std::string folder = Glib::get_tmp_dir() + "/MeridKestalUtility/firmware/";
    EXPECT_EQ(fileEntry("Esp32"), Shown("merid_firmware.bin", folder + "merid_firmware.bin"));
    const std::string stm32 = "Tovik_2.13.319.f75a0c3_aes.bin";
    EXPECT_EQ(fileEntry("Stm32"), Shown(stm32, folder + stm32));
    expectFileControls(false, false);
    EXPECT_TRUE(sensitive("UploadButton"));

    ui.get<Gtk::Switch>("FirmwareSourceModeSwitch")->set_active(false);
    EXPECT_EQ(fileEntry("Esp32"), Shown(".", ""));
    expectFileControls(true, false);
    ui.answerFileDialog("SelectFirmwareStm32Button", "");
    EXPECT_EQ(fileEntry("Stm32"), Shown("board-image.bin", image));
}
