// Where the window takes its interface definition from, how it comes up,
// and the log level it applies on the way.
#include "GuiTestSupport.h"
#include "MeridResources.h"
#include "TestSupport.h"

#include <optional>
#include <string>
#include <vector>

using guitest::WindowUnderTest;
using testsupport::CapturingLogger;
using testsupport::ScopedEnv;
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

    // An empty override counts as none.
    ScopedEnv glade{"MERID_UI_GLADE", std::string()};
};

bool resourceReachable() {
    return g_resources_get_info("/meridkestalutility/ui/UserInterface.glade", G_RESOURCE_LOOKUP_FLAGS_NONE,
                                nullptr, nullptr, nullptr);
}

} // namespace

TEST_F(MainWindowLoading, AnEmptyOverrideLoadsTheResourceAndTheWindowShowsWithTitleAndSize) {
    WindowUnderTest ui;
    ASSERT_FALSE(gMessages.empty());
    EXPECT_EQ(gMessages.front(), kResourceLine);
    EXPECT_EQ(ui.window().get_title(), "MeridKestalUtility");
    ui.window().show();
    ToolkitLoop::runUntil(
        [&] { return ui.window().get_mapped() && ui.window().get_allocated_width() >= 500; });
    EXPECT_EQ(ui.window().get_allocated_width(), 500);
    EXPECT_EQ(ui.window().get_allocated_height(), 550);
}

TEST_F(MainWindowLoading, WithoutTheResourceAFileOnDiskIsTheFallback) {
    // The bundle may be registered more than once; take all of it away.
    GResource* bundle = merid_ui_get_resource();
    int unregistered = 0;
    while (resourceReachable() && unregistered < 16) {
        g_resources_unregister(bundle);
        ++unregistered;
    }
    ASSERT_FALSE(resourceReachable());
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

// An INFO line of the window's start and the file sink tell the levels apart.
TEST_F(MainWindowLoading, TheWindowAppliesTheLogLevelOfTheEnvironment) {
    struct Case {
        std::optional<std::string> level;
        bool infoWritten;
        bool fileSink;
    };
    for (const Case& c : {Case{std::nullopt, true, true}, Case{std::string("Important"), false, true},
                          Case{std::string("oFF"), false, false}}) {
        ScopedEnv level("MERID_LOG_LEVEL", c.level);
        CapturingLogger captured;
        WindowUnderTest ui;
        EXPECT_EQ(captured.contains("MainWindow: Init Widgets", BaseLogger::INFO), c.infoWritten);
        EXPECT_EQ(LoggerManager::getInstance().checkLoggerExists(LoggerManager::FILE), c.fileSink);
    }
}
