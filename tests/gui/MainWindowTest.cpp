// How the window finds its interface definition, and the log level the
// window applies as it comes up.
#include "GlobalHandlerEvents.h"
#include "GuiTestSupport.h"
#include "MeridResources.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

#include <fstream>
#include <string>
#include <vector>

using testsupport::CapturingLogger;
using testsupport::ScopedEnv;
using testsupport::TempDir;
using testsupport::ToolkitLoop;

namespace {

const std::string kResourceLine =
    "MainWindow: loading UI from GResource /meridkestalutility/ui/UserInterface.glade";
const std::string kSourceGlade = std::string(MERID_SOURCE_ROOT) + "/UI/UserInterface.glade";

// Messages logged without a domain, which is where the loading lines go.
std::vector<std::string> gMessages;

void collectMessage(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer) {
    if (domain == nullptr && (level & G_LOG_LEVEL_MESSAGE) != 0) {
        gMessages.emplace_back(message);
    } else {
        g_log_default_handler(domain, level, message, nullptr);
    }
}

bool resourceReachable() {
    return g_resources_get_info("/meridkestalutility/ui/UserInterface.glade", G_RESOURCE_LOOKUP_FLAGS_NONE,
                                nullptr, nullptr, nullptr);
}

class MainWindowLoading : public ::testing::Test {
protected:
    void SetUp() override {
        guitest::application();
        g_log_set_default_handler(&collectMessage, nullptr);
        gMessages.clear();
    }

    void TearDown() override {
        delete window;
        GlobalHandlerEvents::getInstance().clearAllHandlers();
        g_log_set_default_handler(&g_log_default_handler, nullptr);
    }

    // The handlers of an earlier window point at a window that is gone.
    MainWindow* load() {
        delete window;
        window = nullptr;
        GlobalHandlerEvents::getInstance().clearAllHandlers();
        window = MainWindow::getInstance("MeridKestalUtility", guitest::application());
        return window;
    }

    ScopedEnv glade{"MERID_UI_GLADE", std::nullopt};
    MainWindow* window = nullptr;
};

} // namespace

TEST_F(MainWindowLoading, FromTheResourceTheWindowShowsWithTitleAndSize) {
    ASSERT_NE(load(), nullptr);
    const std::vector<std::string> expected = {
        kResourceLine,
        "MainWindow: resolving derived widget MainWindow...",
        "MainWindow: widget resolved, initializing...",
        "MainWindow: initWidgets done.",
    };
    EXPECT_EQ(gMessages, expected);
    EXPECT_EQ(window->get_title(), "MeridKestalUtility");
    window->show();
    ToolkitLoop::runUntil([&] { return window->get_mapped() && window->get_allocated_width() >= 500; });
    EXPECT_EQ(window->get_allocated_width(), 500);
    EXPECT_EQ(window->get_allocated_height(), 550);
}

TEST_F(MainWindowLoading, AnOverrideFileIsLoadedWhenItExistsAndAnEmptyOneIsIgnored) {
    {
        ScopedEnv override("MERID_UI_GLADE", kSourceGlade);
        ASSERT_NE(load(), nullptr);
        ASSERT_FALSE(gMessages.empty());
        EXPECT_EQ(gMessages.front(), "MainWindow: loading UI from file override: " + kSourceGlade);
    }
    ScopedEnv empty("MERID_UI_GLADE", std::string());
    gMessages.clear();
    ASSERT_NE(load(), nullptr);
    ASSERT_FALSE(gMessages.empty());
    EXPECT_EQ(gMessages.front(), kResourceLine);
}

TEST_F(MainWindowLoading, WithoutTheResourceTheSourceTreeFileIsTheFallback) {
    // The bundle may be registered more than once; take all of it away.
    GResource* ui = merid_ui_get_resource();
    int unregistered = 0;
    while (resourceReachable() && unregistered < 16) {
        g_resources_unregister(ui);
        ++unregistered;
    }
    ASSERT_FALSE(resourceReachable());
    load();
    for (int count = 0; count < unregistered; ++count) {
        g_resources_register(ui);
    }
    ASSERT_NE(window, nullptr);
    ASSERT_GE(gMessages.size(), 2u);
    EXPECT_EQ(gMessages[0], kResourceLine);
    // The file beside the working directory wins over the source tree's.
    const std::string fallback = "MainWindow: loading UI from file fallback: ";
    EXPECT_TRUE(gMessages[1] == fallback + kSourceGlade ||
                gMessages[1] == fallback + "UI/UserInterface.glade")
        << gMessages[1];
    EXPECT_EQ(window->get_title(), "MeridKestalUtility");
}

TEST_F(MainWindowLoading, ADefinitionWithoutTheWindowObjectEndsTheLoadWithAnError) {
    TempDir dir;
    const std::string noWindow = dir.path() + "/no-window.glade";
    std::ofstream(noWindow) << "<interface><object class=\"GtkBox\" id=\"SomethingElse\"/></interface>";
    ScopedEnv override("MERID_UI_GLADE", noWindow);
    EXPECT_THROW(load(), std::runtime_error);
}

// MERID_LOG_LEVEL as the window applies it while it comes up: an INFO line
// of its start and nothing else tell the levels apart.
TEST_F(MainWindowLoading, TheWindowAppliesTheLogLevelOfTheEnvironment) {
    struct Case {
        std::optional<std::string> level;
        bool infoWritten;
        bool anythingWritten;
    };
    for (const Case& c : {Case{std::nullopt, true, true}, Case{std::string("Important"), false, true},
                          Case{std::string("oFF"), false, false}}) {
        ScopedEnv level("MERID_LOG_LEVEL", c.level);
        CapturingLogger captured;
        ASSERT_NE(load(), nullptr);
        EXPECT_EQ(captured.contains("MainWindow: Init Widgets", BaseLogger::INFO), c.infoWritten);
        EXPECT_EQ(LoggerManager::getInstance().checkLoggerExists(LoggerManager::FILE), c.anythingWritten);
    }
}
